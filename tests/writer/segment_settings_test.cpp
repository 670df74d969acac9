#include <gtest/gtest.h>

#include "support/stream.hpp"

namespace orvane::test {
namespace {

// The state and the parameters of segments are the writer's until they are set again.
class SegmentSettings : public testing::Test {
 protected:
  SegmentSettings() {
    stream.writer.setSegmentAlg(kOrvaneSegUnbounded, 0x1111111122222222, 0x3333333344444444,
                                0x5555555566666666);
  }

  // The next record that the writer builds carries them.
  void expectSettings() {
    const pvk_shm_message_t other = recordHeader(9, 0);
    stream.writer.write_data(&other, nullptr, 0, false);  // so that the end is not redundant
    stream.writer.endSegment();
    const Record record = stream.flushed().back();
    EXPECT_EQ(record.type, 2U);
    EXPECT_EQ(record.segAlg, 1U);
    EXPECT_EQ(record.segParam1, 0x22222222U);
    EXPECT_EQ(record.segParam2, 0x44444444U);
    EXPECT_EQ(record.segParam3, 0x66666666U);
  }

  Stream stream;
};

TEST_F(SegmentSettings, SurviveOpen) {
  stream.open();
  expectSettings();
}

TEST_F(SegmentSettings, SurviveASegmentAndItsEnd) {
  stream.open();
  stream.write("a");
  stream.writer.endSegment();
  stream.write("b");
  expectSettings();
  expectSettings();
}

TEST_F(SegmentSettings, SurviveStop) {
  stream.open();
  stream.writer.stop(false);
  stream.writer.stop(true);
  stream.pair.discardAll();
  expectSettings();
}

TEST_F(SegmentSettings, SurviveCloseAndTheNextOpen) {
  stream.open();
  stream.write("a");
  stream.writer.close();
  stream.open();
  expectSettings();
}

TEST_F(SegmentSettings, SurviveAFailedOpenStopAndClose) {
  stream.pair.post(1001, "no");
  EXPECT_ANY_THROW(stream.writer.open());
  stream.pair.discardAll();
  stream.open();
  stream.pair.post(1001, "no");
  EXPECT_ANY_THROW(stream.writer.stop(false));
  stream.pair.post(1001, "no");
  EXPECT_ANY_THROW(stream.writer.close());
  stream.pair.discardAll();
  expectSettings();
}

TEST_F(SegmentSettings, AreInTheStopOfAClosedWriter) {
  stream.writer.stop(false);
  EXPECT_EQ(stream.sent(), (std::vector<Record>{{.type = 4,
                                                 .seqNo = 1,
                                                 .segAlg = 1,
                                                 .segParam1 = 0x22222222,
                                                 .segParam2 = 0x44444444,
                                                 .segParam3 = 0x66666666}}));
}

TEST_F(SegmentSettings, AreNotTouchedByTheCallersOwnRecords) {
  stream.open();
  pvk_shm_message_t header = recordHeader(1, 0, 2);
  header.segParam1 = header.segParam2 = header.segParam3 = 7;
  stream.writer.write_data(&header, nullptr, 0, true);
  stream.pair.discardAll();
  expectSettings();
}

TEST_F(SegmentSettings, AreReplacedAltogether) {
  stream.open();
  stream.writer.setSegmentAlg(kOrvaneSegBounded, 1, 2, 3);
  stream.write("a");
  EXPECT_EQ(stream.flushed(), (std::vector<Record>{{.type = 1,
                                                    .seqNo = 2,
                                                    .segmentDone = 0,
                                                    .segParam1 = 1,
                                                    .segParam2 = 2,
                                                    .segParam3 = 3,
                                                    .data = bytesOf("a")}}));
}

}  // namespace
}  // namespace orvane::test
