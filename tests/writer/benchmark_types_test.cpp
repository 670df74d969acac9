#include <gtest/gtest.h>

#include "support/recording_sink.hpp"
#include "support/stream.hpp"
#include "support/throws.hpp"
#include "texts.hpp"

namespace orvane::test {
namespace {

class BenchmarkTypes : public testing::Test {
 protected:
  void expectWarnings(std::size_t count) {
    EXPECT_EQ(sink.take(), std::vector(count, kWarning));
    EXPECT_EQ(stream.pair.waiting(), 0U);
  }

  RecordingSink sink;  // outlives the stream, whose destructor warns too
  Stream stream{{.benchmark = true}};
};

TEST_F(BenchmarkTypes, AreAllDroppedWithAWarningWithAndWithoutAFlush) {
  for (std::uint32_t type : {0U, 1U, 2U, 3U, 4U, 5U, 0xFFFFFFFFU}) {
    for (const bool flush : {false, true}) {
      const pvk_shm_message_t empty = recordHeader(type, 0);
      stream.writer.write_data(&empty, nullptr, 0, flush);
      const pvk_shm_message_t full = recordHeader(type, 3, type);
      stream.writer.write_data(&full, bytesOf("abc").data(), 0, flush);
      expectWarnings(2);
    }
  }
  EXPECT_EQ(stream.flushed(), std::vector<Record>());
}

TEST_F(BenchmarkTypes, OfTheWritersOwnRecordsAreDroppedWithAWarningEach) {
  stream.writer.open();
  expectWarnings(1);
  stream.write("a");
  expectWarnings(1);
  stream.write("");
  expectWarnings(1);
  stream.writer.endSegment();
  expectWarnings(1);
  stream.writer.endSegment();
  expectWarnings(1);
  stream.writer.stop(true);
  expectWarnings(1);
  stream.writer.stop(false);
  expectWarnings(1);
  stream.writer.close();
  expectWarnings(1);
  EXPECT_EQ(stream.flushed(), std::vector<Record>());
}

TEST_F(BenchmarkTypes, AreDroppedWithoutALookAtTheirDataOrTheRoom) {
  stream.writer.open();
  stream.writer.writeSegment(nullptr, 131072);
  expectWarnings(2);
  stream.writer.setSegmentAlg(kOrvaneSegUnbounded, 0, 0, 0);
  stream.writer.writeSegment(nullptr, 0xFFFFFFFF);
  expectWarnings(1);
}

TEST_F(BenchmarkTypes, AreDroppedAfterTheChecksOfTheSegmentOperations) {
  EXPECT_TRUE(throwsErrno(44, "Could not write segment data because ShmWriter is not open",
                          [&] { stream.write("a"); }));
  EXPECT_TRUE(throwsErrno(44, "Could not end segment data because ShmWriter is not open",
                          [&] { stream.writer.endSegment(); }));
  stream.writer.open();
  stream.writer.setSegmentAlg(static_cast<orvane_seg_state_t>(2), 0, 0, 0);
  sink.take();
  EXPECT_TRUE(throwsErrno(44, "Could not write segment data because wrong algorithm has been set",
                          [&] { stream.write("a"); }));
  EXPECT_EQ(sink.take(), std::vector<Line>());
}

}  // namespace
}  // namespace orvane::test
