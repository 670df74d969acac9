#include "store_format/manifest_lines.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using tool::DamagedFile;
using tool::OtherRecords;
using tool::parseDamaged;
using tool::parseOthers;
using tool::parseSegment;
using tool::parseUnfinished;
using tool::segmentNumberIn;
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

TEST(ManifestLine, OfACompressedSegmentHasTheBytesOfItsFile) {
  const SegmentSummary segment{3, 2, 9, 1, {7, 8, 9}, 0x0011aabb, "segment-000003.zst", 8};
  constexpr char kLine[] =
      "segment number=3 records=2 bytes=9 algorithm=1 parameters=7,8,9 crc32=0011aabb stored=8 "
      "file=segment-000003.zst";
  EXPECT_EQ(textOf(segment), kLine);
  EXPECT_EQ(parseSegment(kLine), segment);
  const std::string unfinished = std::string(kLine) + ".part";
  EXPECT_EQ(parseSegment(unfinished).value_or(SegmentSummary()).file, "segment-000003.zst.part");
  const UnfinishedFile file{"segment-000003.zst.part", 9, 0x0011aabb, 18446744073709551615U};
  constexpr char kUnfinished[] =
      "unfinished file=segment-000003.zst.part bytes=9 crc32=0011aabb "
      "stored=18446744073709551615";
  EXPECT_EQ(textOf(file), kUnfinished);
  EXPECT_EQ(parseUnfinished(kUnfinished), file);
}

TEST(SegmentNumber, IsInTheNamesOfItsFilesOnly) {
  for (const char* name :
       {"segment-000012", "segment-000012.part", "segment-000012.zst", "segment-000012.zst.part"}) {
    EXPECT_EQ(segmentNumberIn(name), 12U) << name;
  }
  EXPECT_EQ(segmentNumberIn("segment-18446744073709551615.zst"), 18446744073709551615U);
  for (const char* name :
       {"", "segment-", "segment-12", "segment-0000012", "segment-000012.",
        "segment-000012.part.zst", "segment-000012.zst.zst", "segment-000012.old", "segment-.zst",
        "segment-000012.zst.part.part", "xsegment-000012", "other-records", "manifest.part"}) {
    EXPECT_EQ(segmentNumberIn(name), std::nullopt) << name;
  }
}

TEST(ManifestLine, OfACompressedFileHasBothItsNameAndItsBytes) {
  for (const char* line :
       {"unfinished file=segment-000003.zst.part bytes=9 crc32=0011aabb",
        "unfinished file=segment-000003.part bytes=9 crc32=0011aabb stored=8",
        "unfinished file=segment-000003.zst.part bytes=9 crc32=0011aabb stored=0",
        "unfinished file=segment-000003.zst.part bytes=9 crc32=0011aabb stored="
        "18446744073709551616"}) {
    EXPECT_EQ(parseUnfinished(line), std::nullopt) << line;
  }
}

TEST(ManifestLine, KnowsACompressedFileByItsName) {
  for (const char* name : {"segment-000003.zst", "segment-000003.zst.part", "/store/x.zst"}) {
    EXPECT_TRUE(tool::isCompressed(name)) << name;
  }
  for (const char* name : {"", ".part", "segment-000003", "segment-000003.part", "other-records",
                           "segment-000003zst", "a.zst/segment-000003", "segment.zst.part.part"}) {
    EXPECT_FALSE(tool::isCompressed(name)) << name;
  }
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
  const DamagedFile damaged{"segment-000001", "it has 8 bytes instead of 9"};
  constexpr char kLine[] = "damaged file=segment-000001 reason=it has 8 bytes instead of 9";
  constexpr char kEscaped[] =
      "damaged file=segment-000001 reason=it%20has%208%20bytes%20instead%20of%209";
  EXPECT_EQ(textOf(damaged, 1), kLine);
  EXPECT_EQ(textOf(damaged, 2), kEscaped);
  EXPECT_EQ(parseDamaged(kLine, 1), damaged);
  EXPECT_EQ(parseDamaged(kEscaped, 2), damaged);
  EXPECT_EQ(parseDamaged(kLine, 2), std::nullopt);
  for (const char* line : {"", "damaged file=x", "damaged reason=x", "x file=y reason=z"}) {
    EXPECT_EQ(parseDamaged(line, 1), std::nullopt) << line;
  }
}

TEST(ManifestLine, CountsSkippedNumbers) {
  EXPECT_EQ(tool::skippedLine(18446744073709551615U), "skipped=18446744073709551615");
  EXPECT_EQ(tool::parseSkipped("skipped=18446744073709551615"), 18446744073709551615U);
  for (const char* line :
       {"", "skipped=", "skipped=18446744073709551616", "skipped=01", "skip=1"}) {
    EXPECT_EQ(tool::parseSkipped(line), std::nullopt) << line;
  }
}

TEST(ManifestLine, OfTheReceiptAndTheReasonComesLast) {
  tool::StreamEnding ending{
      {"20261121T023224-4711_0", 4, 17, 2, orvane::StreamEnd::cutOff}, {}, "it\nwas stopped"};
  constexpr char kReceipt[] =
      "receipt stream=20261121T023224-4711_0 records=4 bytes=17 segments=2 end=cut-off";
  EXPECT_THAT(linesOf(ending, 1), testing::ElementsAre(kReceipt, "records=4", "bytes=17",
                                                       "end=cut-off", "reason=it\nwas stopped"));
  ending.ended = tool::parseUtc("2026-11-21T02:32:31.004Z");
  EXPECT_THAT(linesOf(ending, 2),
              testing::ElementsAre(kReceipt, "records=4", "bytes=17", "end=cut-off",
                                   "ended=2026-11-21T02:32:31.004Z", "reason=it%0Awas%20stopped"));
}

TEST(ManifestLine, OfTheReasonAndOfTheEndIsReadBack) {
  EXPECT_EQ(tool::parseReason("reason=it was stopped", 1), "it was stopped");
  EXPECT_EQ(tool::parseReason("reason=it%20was%20stopped", 2), "it was stopped");
  EXPECT_EQ(tool::parseReason("reason=it was stopped", 2), std::nullopt);
  EXPECT_EQ(tool::parseReason("reason", 1), std::nullopt);
  EXPECT_EQ(tool::parseEnded("ended=2026-11-21T02:32:31.004Z"),
            tool::parseUtc("2026-11-21T02:32:31.004Z"));
  EXPECT_EQ(tool::parseEnded("ended=2026-11-21T02:32:31Z"), std::nullopt);
  EXPECT_EQ(tool::parseEnded("begun=2026-11-21T02:32:31.004Z"), std::nullopt);
}

TEST(ManifestLine, OfTheChecksumHasEightDigits) {
  EXPECT_EQ(tool::checksumLine(0x0011aabb), "crc32=0011aabb");
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
                    LINE "file=segment-000003.zst", LINE "stored=8 file=segment-000003",
                    LINE "stored=8 file=-", LINE "stored=0 file=segment-000003.zst",
                    LINE "stored=8 file=segment-000004.zst",
                    LINE "stored=8 file=segment-000003.zst.zst",
                    LINE "stored=8 file=segment-000003.part.zst",
                    LINE "stored=18446744073709551616 file=segment-000003.zst",
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
