#include "store_format/manifest.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>

#include "support/manifest.hpp"
#include "support/temp_folder.hpp"

namespace orvane::test {
namespace {

using tool::Manifest;
using tool::readManifest;

constexpr char kHead[] =
    "format=2\nqueue=orders\nstream=20261121T023224-4711_0\n"
    "producer=uid=1000 gid=100 pid=4712 executable=my%20backup\nlabel=app%20log\n"
    "begun=2026-11-21T02:32:24.123Z\n";
constexpr char kSegments[] =
    "segment number=0 records=2 bytes=9 algorithm=1 parameters=7,8,9 crc32=00112233 "
    "file=segment-000000\n"
    "segment number=1 records=1 bytes=3 algorithm=0 parameters=0,0,0 crc32=44556677 "
    "file=segment-000001.part\n";
constexpr char kLost[] =
    "unfinished file=segment-000002.part bytes=3 crc32=ccddeeff\n"
    "damaged file=segment-000001 reason=it%20is%20not%20listed\n";
constexpr char kOthers[] = "other-records=1 bytes=5 crc32=8899aabb\nskipped=4\n";
constexpr char kEnding[] =
    "receipt stream=20261121T023224-4711_0 records=4 bytes=17 segments=2 end=cut-off\n"
    "records=4\nbytes=17\nend=cut-off\nended=2026-11-21T02:32:31.004Z\n"
    "reason=the%20server%20was%20stopped\n";

class ManifestTest : public testing::Test {
 protected:
  Manifest read(const std::string& content) const {
    writeFile(path, content);
    return readManifest(path);
  }

  // What reading the content fails with.
  std::string faultOf(const std::string& content) const {
    try {
      read(content);
      return "";
    } catch (const std::runtime_error& e) {
      return e.what();
    }
  }
  std::string damaged(const std::string& fault) const {
    return "the manifest is damaged: " + fault + ": " + path;
  }

  const TempFolder folder;
  const std::string path = folder.path() + "/manifest";
  const std::string lines = std::string(kHead) + kSegments + kOthers + kEnding;
};

TEST_F(ManifestTest, IsReadAsAWhole) {
  const Manifest manifest = read(withChecksum(lines));
  EXPECT_EQ(manifest.head,
            (tool::StreamHead{.queue = "orders",
                              .stream = "20261121T023224-4711_0",
                              .producer = tool::Producer{1000, 100, 4712, "my backup"},
                              .label = "app log",
                              .begun = tool::parseUtc("2026-11-21T02:32:24.123Z")}));
  ASSERT_EQ(manifest.segments.size(), 2U);
  EXPECT_EQ(manifest.segments[0],
            (tool::SegmentSummary{0, 2, 9, 1, {7, 8, 9}, 0x00112233, "segment-000000"}));
  EXPECT_EQ(manifest.segments[1].file, "segment-000001.part");
  EXPECT_EQ(manifest.others, (tool::OtherRecords{1, 5, 0x8899aabb}));
  EXPECT_EQ(manifest.skipped, 4U);
  EXPECT_TRUE(manifest.unfinished.empty());
  EXPECT_TRUE(manifest.damaged.empty());
  EXPECT_EQ(manifest.ending,
            (tool::StreamEnding{{"20261121T023224-4711_0", 4, 17, 2, StreamEnd::cutOff},
                                tool::parseUtc("2026-11-21T02:32:31.004Z"),
                                "the server was stopped"}));
}

TEST_F(ManifestTest, TellsWhatADeadServerLeft) {
  const Manifest manifest = read(withChecksum(std::string(kHead) + kSegments + kLost + kEnding));
  ASSERT_EQ(manifest.unfinished.size(), 1U);
  EXPECT_EQ(manifest.unfinished[0], (tool::UnfinishedFile{"segment-000002.part", 3, 0xccddeeff}));
  ASSERT_EQ(manifest.damaged.size(), 1U);
  EXPECT_EQ(manifest.damaged[0], (tool::DamagedFile{"segment-000001", "it is not listed"}));
  EXPECT_EQ(manifest.others, std::nullopt);
  EXPECT_EQ(manifest.skipped, std::nullopt);
}

TEST_F(ManifestTest, TellsTheSizesOfCompressedFiles) {
  const std::string compressed =
      "segment number=0 records=2 bytes=9 algorithm=1 parameters=7,8,9 crc32=00112233 stored=8 "
      "file=segment-000000.zst\n"
      "unfinished file=segment-000001.zst.part bytes=3 crc32=ccddeeff stored=2\n";
  const Manifest manifest = read(withChecksum(std::string(kHead) + compressed + kEnding));
  EXPECT_EQ(manifest.segments.at(0).stored, 8U);
  EXPECT_EQ(manifest.segments.at(0).file, "segment-000000.zst");
  EXPECT_EQ(manifest.unfinished.at(0).stored, 2U);
}

TEST_F(ManifestTest, IsReadInFormat1WithAReasonOfSeveralLines) {
  const Manifest manifest = read(
      "format=1\nqueue=orders\nstream=s\n"
      "damaged file=segment-000000 reason=it is not listed\n"
      "receipt stream=s records=0 bytes=0 segments=0 end=broken\n"
      "records=0\nbytes=0\nend=broken\nreason=first\nreason=second\n\nlast\n");
  EXPECT_EQ(manifest.head, (tool::StreamHead{.format = 1, .queue = "orders", .stream = "s"}));
  EXPECT_EQ(manifest.damaged.at(0).reason, "it is not listed");
  EXPECT_EQ(manifest.ending.ended, std::nullopt);
  EXPECT_EQ(manifest.ending.reason, "first\nreason=second\n\nlast");
}

TEST_F(ManifestTest, OfAnotherFormatIsRefusedByItsName) {
  EXPECT_EQ(faultOf("format=3\n" + lines),
            "format 3 is not known: " + path +
                " was written by another release: use that one to read it");
}

TEST_F(ManifestTest, ThatWasChangedIsDamaged) {
  const std::string whole = withChecksum(lines);
  for (std::size_t at = 0; at < whole.size(); ++at) {
    std::string changed = whole;
    changed[at] = static_cast<char>(changed[at] ^ 1);
    EXPECT_NE(faultOf(changed), "") << at;
  }
  for (std::size_t size = 0; size < whole.size(); size += 5) {
    EXPECT_NE(faultOf(whole.substr(0, size)), "") << size;
  }
}

TEST_F(ManifestTest, NamesTheFirstLineThatNoServerWrites) {
  const auto changed = [this](const std::string& from, const std::string& to) {
    std::string text = lines;
    text.replace(text.find(from), from.size(), to);
    return faultOf(withChecksum(text));
  };
  const auto atLine = [this](int number) {
    return damaged("line " + std::to_string(number) + " is not what a server writes there");
  };
  EXPECT_EQ(changed("stream=2", "stream=2"), "");
  EXPECT_EQ(changed("queue=orders\n", ""), atLine(2));
  EXPECT_EQ(changed("label=app%20log", "label=app log"), atLine(5));
  EXPECT_EQ(changed("records=2 bytes=9", "records=2 bytes=09"), atLine(7));
  EXPECT_EQ(changed("skipped=4\n", "skipped=4\nskipped=4\n"), atLine(11));
  EXPECT_EQ(changed("\nrecords=4\n", "\nrecords=5\n"), atLine(12));
  EXPECT_EQ(changed("\nended=", "\nmore\nended="), atLine(15));
  EXPECT_EQ(changed("reason=the%20server%20was%20stopped\n", ""), atLine(16));
  EXPECT_EQ(changed("%20stopped\n", "%20stopped\nmore\n"), atLine(16));
}

TEST_F(ManifestTest, InFormat1HasNoLineOfFormat2) {
  const std::string first =
      "format=1\nqueue=orders\nstream=s\n"
      "receipt stream=s records=0 bytes=0 segments=0 end=closed\n"
      "records=0\nbytes=0\nend=closed\nreason=\n";
  EXPECT_EQ(faultOf(first), "");
  for (const char* const line : {"label=x\n", "begun=2026-11-21T02:32:24.123Z\n"}) {
    std::string more = first;
    EXPECT_EQ(faultOf(more.insert(more.find("receipt"), line)),
              damaged("line 4 is not what a server writes there"));
  }
}

TEST_F(ManifestTest, IsNamedIfItCannotBeRead) {
  try {
    readManifest(path);
    FAIL();
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(e.what(), "No such file or directory: cannot read " + path);
  }
}

// The system opens the memory of a process, and does not read its first page, where nothing is.
TEST_F(ManifestTest, IsNamedIfReadingItFails) {
  try {
    readManifest("/proc/self/mem");
    FAIL();
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "Input/output error: cannot read /proc/self/mem");
  }
}

}  // namespace
}  // namespace orvane::test
