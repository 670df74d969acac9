#include <gtest/gtest.h>

#include "support/grouping_locale.hpp"
#include "support/stream.hpp"
#include "support/throws.hpp"
#include "support/writer_members.hpp"

// The check of mixed segment states sleeps: no operation clears segmentFirstWrite. It is kept
// ready, and so is its message; these tests wake it by hand.
namespace orvane::test {
namespace {

class DormantHomogeneity : public testing::Test {
 protected:
  DormantHomogeneity() {
    stream.open();
    stream.write("a");
    segmentFirstWriteOf(stream.writer) = false;
  }

  Stream stream;
};

TEST_F(DormantHomogeneity, IsNeverWokenByTheWriter) {
  Stream other;
  other.open();
  other.write("a");
  other.writer.endSegment();
  other.writer.stop(false);
  other.writer.close();
  other.writer.open();
  other.write("b");
  EXPECT_TRUE(segmentFirstWriteOf(other.writer));
}

TEST_F(DormantHomogeneity, RejectsAnotherStateAndChangesNothing) {
  stream.writer.setSegmentAlg(kOrvaneSegUnbounded, 1, 2, 3);
  const pvk_shm_message_t before = headerOf(stream.writer);
  EXPECT_TRUE(throwsErrno(89,
                          "Could not write segment data for sequence 3 because segment states are "
                          "not homogeneous (last state=0, current state=1)",
                          [&] { stream.write("b"); }));
  EXPECT_TRUE(headerOf(stream.writer) == before);
  EXPECT_EQ(static_cast<int>(lastSegmentStateOf(stream.writer)), 0);
  EXPECT_FALSE(segmentFirstWriteOf(stream.writer));
  EXPECT_EQ(stream.flushed().size(), 1U);
}

TEST_F(DormantHomogeneity, AcceptsTheSameState) {
  stream.write("b");
  EXPECT_EQ(stream.flushed().size(), 2U);
}

TEST_F(DormantHomogeneity, PrintsStatesSigned) {
  lastSegmentStateOf(stream.writer) = static_cast<orvane_seg_state_t>(-7);
  EXPECT_TRUE(throwsErrno(89,
                          "Could not write segment data for sequence 3 because segment states are "
                          "not homogeneous (last state=-7, current state=0)",
                          [&] { stream.write("b"); }));
}

TEST_F(DormantHomogeneity, ComesAfterTheCheckOfTheAlgorithm) {
  stream.writer.setSegmentAlg(static_cast<orvane_seg_state_t>(2), 0, 0, 0);
  EXPECT_TRUE(throwsErrno(44, "Could not write segment data because wrong algorithm has been set",
                          [&] { stream.write("b"); }));
}

TEST_F(DormantHomogeneity, WritesPlainDecimalsUnderAGroupingGlobalLocale) {
  const GlobalGroupingLocale grouping;
  headerOf(stream.writer).seqNo = 1233;
  lastSegmentStateOf(stream.writer) = static_cast<orvane_seg_state_t>(-12345);
  EXPECT_TRUE(throwsErrno(89,
                          "Could not write segment data for sequence 1234 because segment states "
                          "are not homogeneous (last state=-12345, current state=0)",
                          [&] { stream.write("b"); }));
}

}  // namespace
}  // namespace orvane::test
