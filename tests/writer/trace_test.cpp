#include <gtest/gtest.h>

#include "support/recording_sink.hpp"
#include "support/stream.hpp"

namespace orvane::test {
namespace {

class WriterTrace : public testing::Test {
 protected:
  WriterTrace() {
    stream.open();
    sink.take();
  }

  Stream stream;
  RecordingSink sink{RecordingSink::Tracing::on};
};

TEST_F(WriterTrace, OfARecord) {
  const pvk_shm_message_t header = recordHeader(1, 5);
  stream.writer.write_data(&header, bytesOf("hello").data(), 7, false);
  EXPECT_EQ(sink.take(), (std::vector{entered("write_data"),
                                      traced("write_data: write header.type =1, len=5, timeout=7s"),
                                      left("write_data")}));
}

TEST_F(WriterTrace, PrintsTypeAndLengthSignedAndTheTimeoutUnsigned) {
  const pvk_shm_message_t header = recordHeader(0xFFFFFFFF, 0xFFFFFFFE);
  EXPECT_ANY_THROW(stream.writer.write_data(&header, nullptr, 0xFFFFFFFF, false));
  EXPECT_EQ(sink.take(),
            (std::vector{entered("write_data"),
                         traced("write_data: write header.type =-1, len=-2, timeout=4294967295s"),
                         left("write_data")}));
}

TEST_F(WriterTrace, OfAFlushHasNoScope) {
  stream.write("a");
  stream.write("b");
  sink.take();
  stream.writer.flush_shm_buffer(0);
  stream.writer.flush_shm_buffer(0);
  EXPECT_EQ(sink.take(), (std::vector{traced("flush_shm_buffer: Sending shm batch of 2"),
                                      traced("flush_shm_buffer: Sending shm batch of 0")}));
}

TEST_F(WriterTrace, OfAFlushComesBeforeItsFailure) {
  stream.pair.fill();
  EXPECT_ANY_THROW(stream.writer.flush_shm_buffer(0));
  EXPECT_EQ(sink.take(), std::vector{traced("flush_shm_buffer: Sending shm batch of 0")});
  stream.pair.discardAll();
}

TEST_F(WriterTrace, OfASegmentAndItsEnd) {
  stream.write("abc");
  stream.writer.endSegment();
  EXPECT_EQ(sink.take(), (std::vector{entered("writeSegment"), entered("write_data"),
                                      traced("write_data: write header.type =1, len=3, timeout=7s"),
                                      left("write_data"), left("writeSegment"),
                                      entered("endSegment"), entered("write_data"),
                                      traced("write_data: write header.type =2, len=0, timeout=7s"),
                                      left("write_data"), left("endSegment")}));
}

TEST_F(WriterTrace, MarksScopesThatAnExceptionLeaves) {
  stream.writer.setSegmentAlg(static_cast<orvane_seg_state_t>(2), 0, 0, 0);
  EXPECT_ANY_THROW(stream.write("a"));
  EXPECT_EQ(sink.take(), (std::vector{entered("writeSegment"), left("writeSegment")}));
}

TEST_F(WriterTrace, MarksTheScopesOfAClosedWriter) {
  stream.writer.close();
  sink.take();
  EXPECT_ANY_THROW(stream.write("a"));
  EXPECT_ANY_THROW(stream.writer.endSegment());
  EXPECT_EQ(sink.take(), (std::vector{entered("writeSegment"), left("writeSegment"),
                                      entered("endSegment"), left("endSegment")}));
}

TEST_F(WriterTrace, OfARecordThatNeedsRoomShowsTheFlushInside) {
  stream.write(std::string(968, 'x'));
  sink.take();
  stream.write("a");
  EXPECT_EQ(sink.take(), (std::vector{entered("writeSegment"), entered("write_data"),
                                      traced("write_data: write header.type =1, len=1, timeout=7s"),
                                      traced("flush_shm_buffer: Sending shm batch of 1"),
                                      left("write_data"), left("writeSegment")}));
}

TEST_F(WriterTrace, OfSettingTheAlgorithmIsEmpty) {
  stream.writer.setSegmentAlg(kOrvaneSegUnbounded, 1, 2, 3);
  EXPECT_EQ(sink.take(), std::vector<Line>());
}

TEST_F(WriterTrace, IsSilentWhileTracingIsOff) {
  ox::setTracing(false);
  stream.write("a");
  stream.writer.endSegment();
  stream.writer.endSegment();
  stream.writer.stop(false);
  stream.writer.close();
  stream.writer.open();
  const ShmWriter other("other", stream.pair.name(), 7, 0, false);
  EXPECT_EQ(sink.take(), std::vector<Line>());
}

}  // namespace
}  // namespace orvane::test
