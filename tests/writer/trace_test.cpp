#include <gtest/gtest.h>

#include "support/recording_sink.hpp"
#include "support/stream.hpp"
#include "transports.hpp"

namespace orvane::test {
namespace {

template <typename Transport>
class WriterTrace : public testing::Test {
 protected:
  WriterTrace() {
    stream.open();
    sink.take();
  }

  Transport stream;
  RecordingSink sink{RecordingSink::Tracing::on};
};
TYPED_TEST_SUITE(WriterTrace, Transports, TransportName);

class WriterTraceOfAQueue : public testing::Test {
 protected:
  WriterTraceOfAQueue() {
    stream.open();
    sink.take();
  }

  Stream stream;
  RecordingSink sink{RecordingSink::Tracing::on};
};

TEST_F(WriterTraceOfAQueue, OfARecord) {
  const pvk_shm_message_t header = recordHeader(1, 5);
  stream.writer.write_data(&header, bytesOf("hello").data(), 7, false);
  EXPECT_EQ(sink.take(), (std::vector{entered("write_data"),
                                      traced("write_data: write header.type =1, len=5, timeout=7s"),
                                      left("write_data")}));
}

TEST_F(WriterTraceOfAQueue, PrintsTypeAndLengthSignedAndTheTimeoutUnsigned) {
  const pvk_shm_message_t header = recordHeader(0xFFFFFFFF, 0xFFFFFFFE);
  EXPECT_ANY_THROW(stream.writer.write_data(&header, nullptr, 0xFFFFFFFF, false));
  EXPECT_EQ(sink.take(),
            (std::vector{entered("write_data"),
                         traced("write_data: write header.type =-1, len=-2, timeout=4294967295s"),
                         left("write_data")}));
}

TEST_F(WriterTraceOfAQueue, OfAFlushHasNoScope) {
  stream.write("a");
  stream.write("b");
  sink.take();
  stream.writer.flush_shm_buffer(0);
  stream.writer.flush_shm_buffer(0);
  EXPECT_EQ(sink.take(), (std::vector{traced("flush_shm_buffer: Sending shm batch of 2"),
                                      traced("flush_shm_buffer: Sending shm batch of 0")}));
}

TEST_F(WriterTraceOfAQueue, OfAFlushComesBeforeItsFailure) {
  stream.pair.fill();
  EXPECT_ANY_THROW(stream.writer.flush_shm_buffer(0));
  EXPECT_EQ(sink.take(), std::vector{traced("flush_shm_buffer: Sending shm batch of 0")});
  stream.pair.discardAll();
}

TYPED_TEST(WriterTrace, OfASegmentAndItsEnd) {
  this->stream.write("abc");
  this->stream.writer->endSegment();
  EXPECT_EQ(this->sink.take(),
            (std::vector{entered("writeSegment"), entered("write_data"),
                         traced("write_data: write header.type =1, len=3, timeout=7s"),
                         left("write_data"), left("writeSegment"), entered("endSegment"),
                         entered("write_data"),
                         traced("write_data: write header.type =2, len=0, timeout=7s"),
                         left("write_data"), left("endSegment")}));
}

TYPED_TEST(WriterTrace, MarksScopesThatAnExceptionLeaves) {
  this->stream.writer->setSegmentAlg(static_cast<orvane_seg_state_t>(2), 0, 0, 0);
  EXPECT_ANY_THROW(this->stream.write("a"));
  EXPECT_EQ(this->sink.take(), (std::vector{entered("writeSegment"), left("writeSegment")}));
}

TYPED_TEST(WriterTrace, MarksTheScopesOfAClosedWriter) {
  this->stream.close();
  this->sink.take();
  EXPECT_ANY_THROW(this->stream.write("a"));
  EXPECT_ANY_THROW(this->stream.writer->endSegment());
  EXPECT_EQ(this->sink.take(), (std::vector{entered("writeSegment"), left("writeSegment"),
                                            entered("endSegment"), left("endSegment")}));
}

TEST_F(WriterTraceOfAQueue, OfARecordThatNeedsRoomShowsTheFlushInside) {
  stream.write(std::string(968, 'x'));
  sink.take();
  stream.write("a");
  EXPECT_EQ(sink.take(), (std::vector{entered("writeSegment"), entered("write_data"),
                                      traced("write_data: write header.type =1, len=1, timeout=7s"),
                                      traced("flush_shm_buffer: Sending shm batch of 1"),
                                      left("write_data"), left("writeSegment")}));
}

TYPED_TEST(WriterTrace, OfSettingTheAlgorithmIsEmpty) {
  this->stream.writer->setSegmentAlg(kOrvaneSegUnbounded, 1, 2, 3);
  EXPECT_EQ(this->sink.take(), std::vector<Line>());
}

TYPED_TEST(WriterTrace, IsSilentWhileTracingIsOff) {
  ox::setTracing(false);
  this->stream.write("a");
  this->stream.writer->endSegment();
  this->stream.writer->endSegment();
  this->stream.writer->stop(false);
  this->stream.close();
  this->stream.begin();
  this->stream.another(7);
  EXPECT_EQ(this->sink.take(), std::vector<Line>());
}

}  // namespace
}  // namespace orvane::test
