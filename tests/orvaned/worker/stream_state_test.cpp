#include "worker/stream_state.hpp"

#include <gtest/gtest.h>

#include "support/throws.hpp"

namespace {

using orvane::pvk_shm_message_t;
using orvane::test::throwsErrno;
using orvaned::StreamState;

constexpr std::uint64_t kMax = 18446744073709551615U;

pvk_shm_message_t header(std::uint32_t type, std::uint64_t seqNo, std::uint64_t segmentNo = 0,
                         std::uint32_t len = 0) {
  pvk_shm_message_t made;
  made.type = type;
  made.seqNo = seqNo;
  made.segmentNo = segmentNo;
  made.len = len;
  return made;
}

class StreamStateTest : public testing::Test {
 protected:
  void take(std::uint32_t type, std::uint64_t seqNo, std::uint64_t segmentNo = 0,
            std::uint32_t len = 0) {
    state.check(header(type, seqNo, segmentNo, len));
  }
  testing::AssertionResult refuses(ox_status_t status, const std::string& text,
                                   const pvk_shm_message_t& record) {
    return throwsErrno(status, text, [&] { state.check(record); });
  }

  StreamState state{header(0, 0)};
};

TEST_F(StreamStateTest, AWritersOwnNumbersSkipNothing) {
  take(1, 2, 0, 5);  // the open record carried 0, and the writer then counts from 1
  take(1, 3, 0, 5);
  take(2, 4);
  take(3, 5);
  EXPECT_EQ(state.skipped(), 0U);
}

TEST_F(StreamStateTest, TheFirstRecordMayAlsoCarryOne) {
  take(1, 1);
  take(1, 2);
  EXPECT_EQ(state.skipped(), 0U);
}

TEST_F(StreamStateTest, ForwardGapsAreCounted) {
  take(1, 3);  // 2 is missing
  EXPECT_EQ(state.skipped(), 1U);
  take(1, 7);  // 4, 5, 6 are missing
  EXPECT_EQ(state.skipped(), 4U);
  take(2, 9);  // the gap of one is valid after the open record only
  EXPECT_EQ(state.skipped(), 5U);
}

TEST_F(StreamStateTest, ARepeatedNumberIsRefused) {
  take(1, 2);
  take(1, 17);
  EXPECT_TRUE(
      refuses(1001, "sequence number out of order: expected above 17, got 17", header(1, 17)));
}

TEST_F(StreamStateTest, ANumberThatGoesBackIsRefused) {
  take(1, 17);
  EXPECT_TRUE(
      refuses(1001, "sequence number out of order: expected above 17, got 12", header(1, 12)));
  EXPECT_EQ(state.skipped(), 15U);
}

TEST_F(StreamStateTest, EveryNumberedTypeIsChecked) {
  take(1, 17);
  const std::string text = "sequence number out of order: expected above 17, got 12";
  EXPECT_TRUE(refuses(1001, text, header(2, 12)));
  EXPECT_TRUE(refuses(1001, text, header(3, 12)));
  EXPECT_TRUE(refuses(1001, text, header(4, 12)));
}

TEST_F(StreamStateTest, OtherTypesCarryWhatTheyLike) {
  take(1, 17);
  take(5, 3, 99, 7);
  take(0xFFFFFFFF, 0, 99);
  take(1, 18);
  EXPECT_EQ(state.skipped(), 15U);
}

TEST_F(StreamStateTest, NumbersReach64Bits) {
  take(1, kMax);
  EXPECT_EQ(state.skipped(), kMax - 2);
  EXPECT_TRUE(refuses(1001,
                      "sequence number out of order: expected above 18446744073709551615, got 0",
                      header(1, 0)));
}

TEST_F(StreamStateTest, NumbersGoOnFromTheOpenRecordsOwn) {
  StreamState late(header(0, 100));
  EXPECT_TRUE(throwsErrno(1001, "sequence number out of order: expected above 100, got 2",
                          [&] { late.check(header(1, 2)); }));
  late.check(header(1, 102));
  EXPECT_EQ(late.skipped(), 0U);
}

TEST_F(StreamStateTest, IsFreshUntilAnythingComes) {
  EXPECT_TRUE(state.isFresh());
  take(7, 0);
  EXPECT_FALSE(state.isFresh());
}

TEST_F(StreamStateTest, ASegmentWithDataUsesItsNumberUp) {
  take(1, 2, 0, 5);
  take(2, 3, 0);
  take(1, 4, 1, 5);
  take(2, 5, 1);
  EXPECT_TRUE(
      refuses(1002, "a record of segment 0 came after segment 1 was ended", header(1, 6, 0)));
  EXPECT_TRUE(
      refuses(1002, "a record of segment 1 came after segment 1 was ended", header(2, 7, 1)));
}

TEST_F(StreamStateTest, AnEmptySegmentLeavesItsNumberToTheNext) {
  take(1, 2, 0);
  take(2, 3, 0);
  take(2, 4, 0);
  take(1, 5, 0, 5);
  take(2, 6, 0);
  EXPECT_TRUE(
      refuses(1002, "a record of segment 0 came after segment 0 was ended", header(1, 7, 0)));
}

TEST_F(StreamStateTest, AnEmptyRecordDoesNotMakeItsSegmentEmpty) {
  take(1, 2, 0, 5);
  take(1, 3, 0);
  take(2, 4, 0);
  EXPECT_TRUE(
      refuses(1002, "a record of segment 0 came after segment 0 was ended", header(1, 5, 0)));
}

TEST_F(StreamStateTest, ASegmentAfterOneWithDataMayBeEmptyToo) {
  take(1, 2, 0, 5);
  take(2, 3, 0);
  take(2, 4, 1);
  take(1, 5, 1, 5);
}

TEST_F(StreamStateTest, SegmentNumbersMayBeLeftOut) {
  take(1, 2, 5, 5);
  take(2, 3, 5);
  take(1, 4, kMax, 5);
  take(2, 5, kMax);
  EXPECT_TRUE(refuses(1002,
                      "a record of segment 0 came after segment 18446744073709551615 was ended",
                      header(1, 6, 0)));
}

TEST_F(StreamStateTest, ASegmentMustBeEndedBeforeTheNextBegins) {
  take(1, 2, 3, 5);
  EXPECT_TRUE(
      refuses(1002, "a record of segment 4 came before segment 3 was ended", header(1, 3, 4, 5)));
  EXPECT_TRUE(
      refuses(1002, "a record of segment 4 came before segment 3 was ended", header(2, 4, 4)));
}

TEST_F(StreamStateTest, ASegmentWithoutDataMustBeEndedToo) {
  take(1, 2, 3, 0);
  EXPECT_TRUE(
      refuses(1002, "a record of segment 4 came before segment 3 was ended", header(1, 3, 4, 5)));
}

TEST_F(StreamStateTest, AnEndOfSegmentHasNoData) {
  take(1, 2, 0, 5);
  EXPECT_TRUE(
      refuses(1002, "a record of type 2 has 3 data bytes; it may have none", header(2, 3, 0, 3)));
  EXPECT_TRUE(
      refuses(1002, "a record of type 2 has 1 data bytes; it may have none", header(2, 4, 0, 1)));
  const std::string refused = "a record of segment 1 came before segment 0 was ended";
  EXPECT_TRUE(refuses(1002, refused, header(1, 5, 1))) << "what was refused has ended nothing";
  take(2, 6, 0);
  EXPECT_TRUE(
      refuses(1002, "a record of segment 0 came after segment 0 was ended", header(1, 7, 0)));
}

TEST_F(StreamStateTest, ARefusedRecordIsNoneThatCame) {
  EXPECT_TRUE(
      refuses(1002, "a record of type 2 has 3 data bytes; it may have none", header(2, 2, 0, 3)));
  EXPECT_TRUE(state.isFresh());
}

TEST_F(StreamStateTest, ASegmentOfOneByteHasData) {
  take(1, 2, 0, 1);
  take(2, 3, 0);
  EXPECT_TRUE(
      refuses(1002, "a record of segment 0 came after segment 0 was ended", header(1, 4, 0)));
}

// Such records are taken on a short cut.
TEST_F(StreamStateTest, EachRecordInARunOfDataIsChecked) {
  take(1, 2, 7, 5);
  take(1, 3, 7, 5);
  EXPECT_TRUE(
      refuses(1001, "sequence number out of order: expected above 3, got 3", header(1, 3, 7, 5)));
  EXPECT_TRUE(
      refuses(1002, "a record of segment 8 came before segment 7 was ended", header(1, 4, 8, 5)));
  take(1, 6, 7, 5);
  EXPECT_EQ(state.skipped(), 1U);  // 5: what was refused has been there
}

TEST_F(StreamStateTest, NoNumberFollowsTheLastOne) {
  take(1, kMax - 1, 0, 5);
  take(1, kMax, 0, 5);
  EXPECT_TRUE(refuses(1001,
                      "sequence number out of order: expected above 18446744073709551615, got 0",
                      header(1, 0, 0, 5)));
}

}  // namespace
