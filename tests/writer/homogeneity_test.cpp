#include <gtest/gtest.h>

#include "support/grouping_locale.hpp"
#include "support/stream.hpp"
#include "support/throws.hpp"
#include "support/writer_members.hpp"
#include "transports.hpp"

// The check of mixed segment states sleeps: no operation clears segmentFirstWrite. It is kept
// ready, and so is its message; these tests wake it by hand.
namespace orvane::test {
namespace {

template <typename Transport>
class DormantHomogeneity : public testing::Test {
 protected:
  DormantHomogeneity() {
    stream.open();
    stream.write("a");
    segmentFirstWriteOf(*stream.writer) = false;
  }

  Transport stream;
};
TYPED_TEST_SUITE(DormantHomogeneity, Transports, TransportName);

TYPED_TEST(DormantHomogeneity, IsNeverWokenByTheWriter) {
  TypeParam other;
  other.open();
  other.write("a");
  other.writer->endSegment();
  other.writer->stop(false);
  other.close();
  other.begin();
  other.write("b");
  EXPECT_TRUE(segmentFirstWriteOf(*other.writer));
}

TYPED_TEST(DormantHomogeneity, RejectsAnotherStateAndChangesNothing) {
  this->stream.writer->setSegmentAlg(kOrvaneSegUnbounded, 1, 2, 3);
  const pvk_shm_message_t before = headerOf(*this->stream.writer);
  EXPECT_TRUE(throwsErrno(89,
                          "Could not write segment data for sequence 3 because segment states are "
                          "not homogeneous (last state=0, current state=1)",
                          [&] { this->stream.write("b"); }));
  EXPECT_TRUE(headerOf(*this->stream.writer) == before);
  EXPECT_EQ(static_cast<int>(lastSegmentStateOf(*this->stream.writer)), 0);
  EXPECT_FALSE(segmentFirstWriteOf(*this->stream.writer));
  EXPECT_EQ(this->stream.flushed().size(), 1U);
}

TYPED_TEST(DormantHomogeneity, AcceptsTheSameState) {
  this->stream.write("b");
  EXPECT_EQ(this->stream.flushed().size(), 2U);
}

TYPED_TEST(DormantHomogeneity, PrintsStatesSigned) {
  lastSegmentStateOf(*this->stream.writer) = static_cast<orvane_seg_state_t>(-7);
  EXPECT_TRUE(throwsErrno(89,
                          "Could not write segment data for sequence 3 because segment states are "
                          "not homogeneous (last state=-7, current state=0)",
                          [&] { this->stream.write("b"); }));
}

TYPED_TEST(DormantHomogeneity, ComesAfterTheCheckOfTheAlgorithm) {
  this->stream.writer->setSegmentAlg(static_cast<orvane_seg_state_t>(2), 0, 0, 0);
  EXPECT_TRUE(throwsErrno(44, "Could not write segment data because wrong algorithm has been set",
                          [&] { this->stream.write("b"); }));
}

TYPED_TEST(DormantHomogeneity, WritesPlainDecimalsUnderAGroupingGlobalLocale) {
  const GlobalGroupingLocale grouping;
  headerOf(*this->stream.writer).seqNo = 1233;
  lastSegmentStateOf(*this->stream.writer) = static_cast<orvane_seg_state_t>(-12345);
  EXPECT_TRUE(throwsErrno(89,
                          "Could not write segment data for sequence 1234 because segment states "
                          "are not homogeneous (last state=-12345, current state=0)",
                          [&] { this->stream.write("b"); }));
}

}  // namespace
}  // namespace orvane::test
