#include "store_format/manifest_lines.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using tool::OtherRecords;
using tool::parseOthers;
using tool::parseSegment;
using tool::parseUnfinished;
using tool::SegmentSummary;
using tool::UnfinishedFile;

TEST(ManifestLine, OfASegmentIsReadBack) {
  const SegmentSummary segment{3, 2, 9, 1, {7, 8, 9}, 0x0011aabb, "segment-000003"};
  constexpr char kLine[] =
      "segment number=3 records=2 bytes=9 algorithm=1 parameters=7,8,9 crc32=0011aabb "
      "file=segment-000003";
  EXPECT_EQ(textOf(segment), kLine);
  EXPECT_EQ(parseSegment(kLine), segment);
}

TEST(ManifestLine, OfASegmentWithoutAFileIsReadBack) {
  const SegmentSummary segment{1, 2, 0, 0, {0, 0, 0}, 0, ""};
  constexpr char kLine[] =
      "segment number=1 records=2 bytes=0 algorithm=0 parameters=0,0,0 crc32=00000000 file=-";
  EXPECT_EQ(textOf(segment), kLine);
  EXPECT_EQ(parseSegment(kLine), segment);
}

TEST(ManifestLine, KeepsTheLargestNumbers) {
  constexpr char kLine[] =
      "segment number=18446744073709551615 records=18446744073709551615 "
      "bytes=18446744073709551615 algorithm=4294967295 "
      "parameters=4294967295,4294967295,4294967295 crc32=ffffffff "
      "file=segment-18446744073709551615.part";
  const auto segment = parseSegment(kLine);
  ASSERT_TRUE(segment);
  EXPECT_EQ(textOf(*segment), kLine);
}

TEST(ManifestLine, OfNothingHasZeros) {
  EXPECT_EQ(
      textOf(SegmentSummary()),
      "segment number=0 records=0 bytes=0 algorithm=0 parameters=0,0,0 crc32=00000000 file=-");
  EXPECT_EQ(textOf(OtherRecords()), "other-records=0 bytes=0 crc32=00000000");
  EXPECT_EQ(textOf(UnfinishedFile()), "unfinished file= bytes=0 crc32=00000000");
}

TEST(ManifestLine, OfOtherRecordsKeepsTheLargestNumbers) {
  constexpr char kLine[] =
      "other-records=18446744073709551615 bytes=18446744073709551615 crc32=ffffffff";
  const auto others = parseOthers(kLine);
  ASSERT_TRUE(others);
  EXPECT_EQ(textOf(*others), kLine);
}

TEST(ManifestLine, OfAnUnfinishedFileKeepsTheLargestNumbers) {
  constexpr char kLine[] =
      "unfinished file=segment-000002.part bytes=18446744073709551615 crc32=ffffffff";
  const auto unfinished = parseUnfinished(kLine);
  ASSERT_TRUE(unfinished);
  EXPECT_EQ(textOf(*unfinished), kLine);
}

TEST(ManifestLine, OfOtherRecordsIsReadBack) {
  const OtherRecords others{2, 5, 0x0a0b0c0d};
  EXPECT_EQ(textOf(others), "other-records=2 bytes=5 crc32=0a0b0c0d");
  EXPECT_EQ(parseOthers("other-records=2 bytes=5 crc32=0a0b0c0d"), others);
}

TEST(ManifestLine, OfAnUnfinishedFileIsReadBack) {
  const UnfinishedFile unfinished{"segment-000002.part", 3, 0xccddeeff};
  constexpr char kLine[] = "unfinished file=segment-000002.part bytes=3 crc32=ccddeeff";
  EXPECT_EQ(textOf(unfinished), kLine);
  EXPECT_EQ(parseUnfinished(kLine), unfinished);
}

TEST(ManifestLine, OfADamagedFileHasTheReason) {
  EXPECT_EQ(tool::damagedLine("segment-000001", "it has 8 bytes instead of 9"),
            "damaged file=segment-000001 reason=it has 8 bytes instead of 9");
}

TEST(ManifestLine, CountsSkippedNumbers) {
  EXPECT_EQ(tool::skippedLine(18446744073709551615U), "skipped=18446744073709551615");
}

TEST(ManifestLine, OfTheStreamComesFirst) {
  EXPECT_THAT(tool::firstLines("orders", "20261121T023224-4711_0"),
              testing::ElementsAre("format=1", "queue=orders", "stream=20261121T023224-4711_0"));
}

TEST(ManifestLine, OfTheReceiptAndTheReasonComesLast) {
  const orvane::Receipt receipt{"20261121T023224-4711_0", 4, 17, 2, orvane::StreamEnd::cutOff};
  EXPECT_THAT(tool::lastLines(receipt, "the server was stopped"),
              testing::ElementsAre("receipt stream=20261121T023224-4711_0 records=4 bytes=17 "
                                   "segments=2 end=cut-off",
                                   "records=4", "bytes=17", "end=cut-off",
                                   "reason=the server was stopped"));
}

TEST(ManifestLine, OfTheReasonBeginsWithItsName) {
  EXPECT_TRUE(tool::isReason("reason="));
  EXPECT_TRUE(tool::isReason("reason=the server was stopped"));
  EXPECT_FALSE(tool::isReason("reason"));
  EXPECT_FALSE(tool::isReason("damaged file=segment-000001 reason=it is not listed"));
}

class NoSegmentLine : public testing::TestWithParam<const char*> {};

TEST_P(NoSegmentLine, IsNotTakenForOne) {
  EXPECT_EQ(parseSegment(GetParam()), std::nullopt);
}

#define LINE "segment number=3 records=2 bytes=9 algorithm=1 parameters=7,8,9 crc32=0011aabb "

INSTANTIATE_TEST_SUITE_P(
    Text, NoSegmentLine,
    testing::Values("", "segment", "skipped=0", "other-records=2 bytes=5 crc32=0a0b0c0d", LINE,
                    LINE "file=", LINE "file=segment-00000", LINE "file=segment-000004",
                    LINE "file=segment-000003.par", LINE "file=../segment-000003",
                    LINE "file=segment-000003 ", " " LINE "file=segment-000003",
                    "segment number=3 records=2 bytes=9 algorithm=1 parameters=7,8 crc32=0011aabb "
                    "file=segment-000003",
                    "segment number=3 records=2 bytes=18446744073709551616 algorithm=1 "
                    "parameters=7,8,9 crc32=0011aabb file=segment-000003",
                    "segment number=3 records=2 bytes=-9 algorithm=1 parameters=7,8,9 "
                    "crc32=0011aabb file=segment-000003",
                    "segment number=3 records=2 bytes=9 algorithm=1 parameters=7,8,9 "
                    "crc32=0011AABB file=segment-000003"));

#undef LINE

class NoOtherRecordsLine : public testing::TestWithParam<const char*> {};

TEST_P(NoOtherRecordsLine, IsNotTakenForOne) {
  EXPECT_EQ(parseOthers(GetParam()), std::nullopt);
}

INSTANTIATE_TEST_SUITE_P(Text, NoOtherRecordsLine,
                         testing::Values("", "other-records=2 bytes=5",
                                         "other-records=2 bytes=5 crc32=0a0b0c",
                                         "other-records=2 bytes=5 crc32=0a0b0c0d more",
                                         "other-records=-2 bytes=5 crc32=0a0b0c0d"));

}  // namespace
