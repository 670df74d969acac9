#include "store_format/manifest_summary.hpp"

#include <gtest/gtest.h>

#include <string>

#include "store_format/stored_file.hpp"
#include "support/manifest.hpp"
#include "support/temp_folder.hpp"

namespace orvane::test {
namespace {

using tool::ManifestSummary;
using tool::readSummary;

const std::string kFirstLines =
    "format=2\nqueue=orvane-20261121T023201-4700_0123456789abcdef\n"
    "stream=20261121T023224-4711_0\n"
    "producer=uid=1000 gid=100 pid=4712 executable=backup\nlabel=app%20log\n"
    "begun=2026-11-21T02:32:24.123Z\n";
const std::string kReceipt =
    "receipt stream=20261121T023224-4711_0 records=4 bytes=17 segments=2 end=cut-off\n";
const std::string kLastLines =
    kReceipt + "records=4\nbytes=17\nend=cut-off\nended=2026-11-21T02:32:31.004Z\nreason=\n";

std::string segmentLine(int number) {
  return "segment number=" + std::to_string(number) +
         " records=1 bytes=1 algorithm=0 parameters=0,0,0 crc32=00000000 file=-\n";
}

class ManifestSummaryTest : public testing::Test {
 protected:
  std::optional<ManifestSummary> summaryOf(const std::string& content) const {
    const std::string path = folder.path() + "/manifest";
    writeFile(path, content);
    return readSummary(tool::openStored(path));
  }

  const TempFolder folder;
};

TEST_F(ManifestSummaryTest, HasTheHeadTheReceiptAndTheEnd) {
  const auto summary = summaryOf(withChecksum(kFirstLines + segmentLine(0) + kLastLines));
  ASSERT_TRUE(summary);
  EXPECT_EQ(summary->head.queue, "orvane-20261121T023201-4700_0123456789abcdef");
  EXPECT_EQ(summary->head.stream, "20261121T023224-4711_0");
  EXPECT_EQ(summary->head.producer, (tool::Producer{1000, 100, 4712, "backup"}));
  EXPECT_EQ(summary->head.label, "app log");
  EXPECT_EQ(summary->head.begun, tool::parseUtc("2026-11-21T02:32:24.123Z"));
  EXPECT_EQ(summary->receipt, (Receipt{"20261121T023224-4711_0", 4, 17, 2, StreamEnd::cutOff}));
  EXPECT_EQ(summary->ended, tool::parseUtc("2026-11-21T02:32:31.004Z"));
}

TEST_F(ManifestSummaryTest, OfFormat1HasWhatThatFormatHas) {
  const auto summary = summaryOf(
      "format=1\nqueue=orders\nstream=20261121T023224-4711_0\n" + segmentLine(0) + kReceipt +
      "records=4\nbytes=17\nend=cut-off\nreason=two\nended=2026-11-21T02:32:31.004Z\n");
  ASSERT_TRUE(summary);
  EXPECT_EQ(summary->head.queue, "orders");
  EXPECT_EQ(summary->head.producer, std::nullopt);
  EXPECT_EQ(summary->head.begun, std::nullopt);
  EXPECT_EQ(summary->receipt.bytes, 17U);
  EXPECT_EQ(summary->ended, std::nullopt);
}

// The manifest's length goes over the end of what is read at once, a byte at a time.
TEST_F(ManifestSummaryTest, IsTheSameForAnyNumberOfSegments) {
  std::string segments;
  for (int number = 0; kFirstLines.size() + segments.size() + kLastLines.size() < 16384 - 100;
       ++number) {
    segments += segmentLine(number);
  }
  for (int more = 0; more < 100; ++more) {
    segments.insert(segments.size() - 1, "x");
    std::string lines = kFirstLines;
    lines.append(segments).append(kLastLines);
    const auto summary = summaryOf(withChecksum(lines));
    ASSERT_TRUE(summary) << more;
    EXPECT_EQ(summary->head.label, "app log");
    EXPECT_EQ(summary->receipt.records, 4U);
    EXPECT_EQ(summary->ended, tool::parseUtc("2026-11-21T02:32:31.004Z"));
  }
  for (int number = 0; number < 2000; ++number) {
    segments += segmentLine(number);
  }
  const auto summary = summaryOf(withChecksum(kFirstLines + segments + kLastLines));
  ASSERT_TRUE(summary);
  EXPECT_EQ(summary->receipt.bytes, 17U);
}

TEST_F(ManifestSummaryTest, IsNotReadFromADamagedManifest) {
  const std::string whole = withChecksum(kFirstLines + segmentLine(0) + kLastLines);
  ASSERT_TRUE(summaryOf(whole));
  for (std::size_t at = 0; at < whole.size(); ++at) {
    std::string changed = whole;
    changed[at] ^= 1;
    EXPECT_FALSE(summaryOf(changed)) << at;
    EXPECT_FALSE(summaryOf(whole.substr(0, at))) << at;
  }
}

TEST_F(ManifestSummaryTest, NeedsAKnownFormatAndAReceipt) {
  EXPECT_FALSE(summaryOf(""));
  EXPECT_FALSE(summaryOf(withChecksum("format=3\n" + kFirstLines.substr(9) + kLastLines)));
  EXPECT_FALSE(summaryOf(withChecksum(kFirstLines)));
  EXPECT_FALSE(summaryOf("format=1\nqueue=orders\nstream=20261121T023224-4711_0\nreceipt \n"));
  EXPECT_FALSE(readSummary(tool::Fd()));
}

}  // namespace
}  // namespace orvane::test
