#include <gtest/gtest.h>

#include "support/recording_sink.hpp"
#include "support/stream.hpp"
#include "support/throws.hpp"
#include "support/writer_members.hpp"
#include "texts.hpp"
#include "transports.hpp"

namespace orvane::test {
namespace {

template <typename Transport>
class BenchmarkMode : public testing::Test {
 protected:
  RecordingSink sink;  // outlives the stream, whose destructor warns too
  Transport stream{StreamOptions{.benchmark = true}};
};
TYPED_TEST_SUITE(BenchmarkMode, Transports, TransportName);

class BenchmarkModeOfAQueue : public testing::Test {
 protected:
  RecordingSink sink;
  Stream stream{{.benchmark = true}};
};

TEST_F(BenchmarkModeOfAQueue, DropsEveryRecordWithAWarning) {
  const pvk_shm_message_t header = recordHeader(9, 3);
  const Bytes data = bytesOf("abc");
  stream.writer.write_data(&header, data.data(), 0, false);
  stream.writer.write_data(&header, data.data(), 0, true);
  EXPECT_EQ(sink.take(), (std::vector{kWarning, kWarning}));
  EXPECT_EQ(stream.pair.waiting(), 0U);
  EXPECT_EQ(stream.flushed(), std::vector<Record>());
}

TEST_F(BenchmarkModeOfAQueue, ComesBeforeEveryOtherCheckOfARecord) {
  const pvk_shm_message_t header = recordHeader(9, 5000);  // more than the batch holds, no data
  EXPECT_NO_THROW(stream.writer.write_data(&header, nullptr, 0, true));
  EXPECT_EQ(sink.take(), std::vector{kWarning});
  EXPECT_EQ(stream.pair.waiting(), 0U);
}

TEST_F(BenchmarkModeOfAQueue, RejectsAnOversizedRecordWithoutAWarning) {
  const pvk_shm_message_t header = recordHeader(9, 131073);
  EXPECT_TRUE(throwsErrno(85,
                          "Segment too large error.  Received segment of size 131073 bytes, but "
                          "the maximum allowed segment size is 131072 bytes",
                          [&] { stream.writer.write_data(&header, nullptr, 0, true); }));
  EXPECT_EQ(sink.take(), std::vector<Line>());
}

TEST_F(BenchmarkModeOfAQueue, LooksForNoAnswer) {
  stream.pair.post(1001, "no");
  EXPECT_NO_THROW(stream.writer.open());
  EXPECT_NO_THROW(stream.writer.close());
  EXPECT_EQ(stream.pair.waitingAnswers(), 1U);
}

TYPED_TEST(BenchmarkMode, OpensAndClosesWithoutSending) {
  this->stream.begin();
  EXPECT_EQ(headerOf(*this->stream.writer).seqNo, 1U);
  EXPECT_NO_THROW(this->stream.write("a"));
  this->stream.writer->stop(false);
  this->stream.close();
  EXPECT_ANY_THROW(this->stream.write("b"));
  EXPECT_EQ(this->sink.take(), std::vector(4, kWarning));
  EXPECT_EQ(this->stream.waiting(), 0U);
}

TYPED_TEST(BenchmarkMode, UsesUpTheSequenceNumbersOfDroppedRecords) {
  this->stream.begin();
  this->stream.write("a");
  EXPECT_EQ(headerOf(*this->stream.writer).seqNo, 2U);
  this->stream.writer->stop(true);
  EXPECT_EQ(headerOf(*this->stream.writer).seqNo, 3U);
  this->stream.close();
  EXPECT_EQ(headerOf(*this->stream.writer).seqNo, 4U);
}

TYPED_TEST(BenchmarkMode, BuildsEveryEndOfSegment) {
  this->stream.begin();
  this->stream.write("a");
  this->stream.writer->endSegment();
  EXPECT_EQ(headerOf(*this->stream.writer).seqNo, 3U);
  EXPECT_EQ(headerOf(*this->stream.writer).segmentNo, 1U);
  this->stream.writer->endSegment();
  EXPECT_EQ(headerOf(*this->stream.writer).seqNo, 4U);
  EXPECT_EQ(headerOf(*this->stream.writer).segmentNo, 1U);
  EXPECT_EQ(this->sink.take(), std::vector(4, kWarning));
}

TEST_F(BenchmarkModeOfAQueue, StillSendsTheEmptyBatchWhenFlushed) {
  const pvk_shm_message_t header = recordHeader(9, 0);
  stream.writer.write_data(&header, nullptr, 0, true);
  EXPECT_EQ(stream.flushed(), std::vector<Record>());
}

TEST_F(BenchmarkModeOfAQueue, TracesTheRecordBeforeItsWarning) {
  ox::setTracing(true);
  const pvk_shm_message_t header = recordHeader(9, 0);
  stream.writer.write_data(&header, nullptr, 7, true);
  EXPECT_EQ(sink.take(), (std::vector{entered("write_data"),
                                      traced("write_data: write header.type =9, len=0, timeout=7s"),
                                      kWarning, left("write_data")}));
  ox::setTracing(false);
}

}  // namespace
}  // namespace orvane::test
