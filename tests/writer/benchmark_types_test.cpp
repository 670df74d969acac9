#include <gtest/gtest.h>

#include "support/recording_sink.hpp"
#include "support/stream.hpp"
#include "support/throws.hpp"
#include "texts.hpp"
#include "transports.hpp"

namespace orvane::test {
namespace {

template <typename Transport>
class BenchmarkTypes : public testing::Test {
 protected:
  void expectWarnings(std::size_t count) {
    EXPECT_EQ(sink.take(), std::vector(count, kWarning));
    EXPECT_EQ(stream.waiting(), 0U);
  }

  RecordingSink sink;  // outlives the stream, whose destructor warns too
  Transport stream{StreamOptions{.benchmark = true}};
};
TYPED_TEST_SUITE(BenchmarkTypes, Transports, TransportName);

TEST(BenchmarkTypesOfTheCaller, AreAllDroppedWithAWarningWithAndWithoutAFlush) {
  RecordingSink sink;
  Stream stream({.benchmark = true});
  for (std::uint32_t type : {0U, 1U, 2U, 3U, 4U, 5U, 0xFFFFFFFFU}) {
    for (const bool flush : {false, true}) {
      const pvk_shm_message_t empty = recordHeader(type, 0);
      stream.writer.write_data(&empty, nullptr, 0, flush);
      const pvk_shm_message_t full = recordHeader(type, 3, type);
      stream.writer.write_data(&full, bytesOf("abc").data(), 0, flush);
      EXPECT_EQ(sink.take(), std::vector(2, kWarning));
      EXPECT_EQ(stream.pair.waiting(), 0U);
    }
  }
  EXPECT_EQ(stream.flushed(), std::vector<Record>());
}

TYPED_TEST(BenchmarkTypes, OfTheWritersOwnRecordsAreDroppedWithAWarningEach) {
  this->stream.begin();
  this->expectWarnings(1);
  this->stream.write("a");
  this->expectWarnings(1);
  this->stream.write("");
  this->expectWarnings(1);
  this->stream.writer->endSegment();
  this->expectWarnings(1);
  this->stream.writer->endSegment();
  this->expectWarnings(1);
  this->stream.writer->stop(true);
  this->expectWarnings(1);
  this->stream.writer->stop(false);
  this->expectWarnings(1);
  this->stream.close();
  this->expectWarnings(1);
  EXPECT_EQ(this->stream.flushed(), std::vector<Record>());
}

TYPED_TEST(BenchmarkTypes, AreDroppedWithoutALookAtTheirDataOrTheRoom) {
  this->stream.begin();
  this->stream.writer->writeSegment(nullptr, 131072);
  this->expectWarnings(2);
  this->stream.writer->setSegmentAlg(kOrvaneSegUnbounded, 0, 0, 0);
  this->stream.writer->writeSegment(nullptr, 0xFFFFFFFF);
  this->expectWarnings(1);
}

TYPED_TEST(BenchmarkTypes, AreDroppedAfterTheChecksOfTheSegmentOperations) {
  EXPECT_TRUE(throwsErrno(44, "Could not write segment data because ShmWriter is not open",
                          [&] { this->stream.write("a"); }));
  EXPECT_TRUE(throwsErrno(44, "Could not end segment data because ShmWriter is not open",
                          [&] { this->stream.writer->endSegment(); }));
  this->stream.begin();
  this->stream.writer->setSegmentAlg(static_cast<orvane_seg_state_t>(2), 0, 0, 0);
  this->sink.take();
  EXPECT_TRUE(throwsErrno(44, "Could not write segment data because wrong algorithm has been set",
                          [&] { this->stream.write("a"); }));
  EXPECT_EQ(this->sink.take(), std::vector<Line>());
}

}  // namespace
}  // namespace orvane::test
