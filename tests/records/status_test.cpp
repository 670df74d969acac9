#include "orvane/status.hpp"

#include <gtest/gtest.h>

#include <type_traits>

#include "orvane/records.hpp"

namespace orvane::test {
namespace {

static_assert(std::is_same_v<ox_status_t, std::int32_t>);

static_assert(std::is_enum_v<::orvane_seg_state_t>);
static_assert(std::is_same_v<std::underlying_type_t<::orvane_seg_state_t>, std::int32_t>);
static_assert(std::is_same_v<orvane::orvane_seg_state_t, ::orvane_seg_state_t>);

TEST(Status, NamesTheValuesThatCallersCompareWith) {
  EXPECT_EQ(kStatusNoRoom, 4);
  EXPECT_EQ(kStatusInvalidArgument, 9);
  EXPECT_EQ(kStatusTimedOut, 15);
  EXPECT_EQ(kStatusCorruptMagic, 32);
  EXPECT_EQ(kStatusNotOpen, 44);
  EXPECT_EQ(kStatusWrongAlgorithm, 44);
  EXPECT_EQ(kStatusSegmentTooLarge, 85);
  EXPECT_EQ(kStatusDoesNotFit, 89);
  EXPECT_EQ(kStatusNotHomogeneous, 89);
}

TEST(RecordTypes, AreZeroToFour) {
  EXPECT_EQ(kRecordOpen, 0U);
  EXPECT_EQ(kRecordSegmentData, 1U);
  EXPECT_EQ(kRecordEndOfSegment, 2U);
  EXPECT_EQ(kRecordClose, 3U);
  EXPECT_EQ(kRecordStop, 4U);
}

TEST(SegmentStates, AreZeroAndOne) {
  EXPECT_EQ(static_cast<std::int32_t>(kOrvaneSegBounded), 0);
  EXPECT_EQ(static_cast<std::int32_t>(kOrvaneSegUnbounded), 1);
}

}  // namespace
}  // namespace orvane::test
