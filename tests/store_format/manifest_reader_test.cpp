#include "store_format/manifest_reader.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

#include "support/temp_folder.hpp"

namespace orvane::test {
namespace {

using tool::fileIn;
using tool::linesOfManifest;
using tool::ManifestReader;

class ManifestReaderTest : public testing::Test {
 protected:
  ManifestReader readerOf(const std::string& content) const {
    writeFile(path, content);
    return ManifestReader(tool::openStored(path));
  }

  const TempFolder folder;
  const std::string path = folder.path() + "/manifest";
};

TEST_F(ManifestReaderTest, ReturnsLineAfterLineAndTheirBytes) {
  ManifestReader manifest = readerOf("format=1\n\nreason=\n");
  EXPECT_EQ(manifest.bytes(), 0U);
  EXPECT_EQ(manifest.next(), "format=1");
  EXPECT_EQ(manifest.bytes(), 9U);
  EXPECT_EQ(manifest.next(), "");
  EXPECT_EQ(manifest.bytes(), 10U);
  EXPECT_EQ(manifest.next(), "reason=");
  EXPECT_EQ(manifest.bytes(), 18U);
  errno = EIO;  // from a call before
  EXPECT_EQ(manifest.next(), std::nullopt);
  EXPECT_EQ(manifest.bytes(), 18U);
  EXPECT_EQ(manifest.rest(), "");
  EXPECT_EQ(manifest.error(), 0);
}

TEST_F(ManifestReaderTest, ReturnsNoLineWithoutAnEnd) {
  ManifestReader manifest = readerOf("format=1\nqueue=ord");
  EXPECT_EQ(manifest.next(), "format=1");
  EXPECT_EQ(manifest.next(), std::nullopt);
  EXPECT_EQ(manifest.next(), std::nullopt);
  EXPECT_EQ(manifest.bytes(), 9U);
  EXPECT_EQ(manifest.rest(), "queue=ord");
  EXPECT_EQ(manifest.error(), 0);
}

TEST_F(ManifestReaderTest, ReadsLinesOfMoreThan64KiB) {
  const std::string line(200000, 'x');
  ManifestReader manifest = readerOf(line + "\n" + line + "\nend\n");
  EXPECT_EQ(manifest.next(), line);
  EXPECT_EQ(manifest.next(), line);
  EXPECT_EQ(manifest.bytes(), 400002U);
  EXPECT_EQ(manifest.next(), "end");
  EXPECT_EQ(manifest.next(), std::nullopt);
}

TEST_F(ManifestReaderTest, ReadsAnEndThatComesAlone) {
  const std::string line(65536, 'x');
  EXPECT_EQ(readerOf(line + "\n").next(), line);
}

TEST_F(ManifestReaderTest, FindsNoLineInAFileThatIsNotOpen) {
  ManifestReader manifest{tool::Fd()};
  EXPECT_EQ(manifest.next(), std::nullopt);
  EXPECT_EQ(manifest.bytes(), 0U);
  EXPECT_EQ(manifest.error(), EBADF);
}

TEST_F(ManifestReaderTest, ReturnsAllLinesOfAFinishedManifest) {
  writeFile(path, "format=1\nqueue=orders\n");
  EXPECT_EQ(linesOfManifest(path), (std::vector<std::string>{"format=1", "queue=orders"}));
  writeFile(path, "format=1\nqueue=ord");
  EXPECT_EQ(linesOfManifest(path), (std::vector<std::string>{"format=1", "queue=ord"}));
  writeFile(path, "");
  EXPECT_EQ(linesOfManifest(path), std::vector<std::string>());
}

TEST_F(ManifestReaderTest, NamesTheManifestThatCannotBeRead) {
  try {
    linesOfManifest(path);
    FAIL();
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(e.what(), "No such file or directory: cannot read " + path);
  }
}

// The system opens the memory of a process, and does not read its first page, where nothing is.
TEST_F(ManifestReaderTest, NamesTheManifestWhoseReadingFails) {
  try {
    linesOfManifest("/proc/self/mem");
    FAIL();
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "Input/output error: cannot read /proc/self/mem");
  }
}

void expectListed(const std::string& line, const std::string& name, std::uint64_t bytes,
                  std::uint32_t checksum) {
  const auto file = fileIn(line);
  ASSERT_TRUE(file);
  EXPECT_EQ(file->name, name);
  EXPECT_EQ(file->content.bytes, bytes);
  EXPECT_EQ(file->content.checksum, checksum);
}

TEST(ManifestFile, OfASegmentIsListed) {
  expectListed(
      "segment number=3 records=2 bytes=9 algorithm=1 parameters=7,8,9 crc32=0011aabb "
      "file=segment-000003.part",
      "segment-000003.part", 9, 0x0011aabb);
}

// The file holds the header of each record too, 48 bytes.
TEST(ManifestFile, OfOtherRecordsIsListedWithTheirHeaders) {
  expectListed("other-records=2 bytes=5 crc32=0a0b0c0d", "other-records", 101, 0x0a0b0c0d);
}

TEST(ManifestFile, ThatWasUnfinishedIsListed) {
  expectListed("unfinished file=segment-000002.part bytes=3 crc32=ccddeeff", "segment-000002.part",
               3, 0xccddeeff);
}

class NoListedFile : public testing::TestWithParam<const char*> {};

TEST_P(NoListedFile, IsInALineOfAnotherKind) {
  EXPECT_FALSE(fileIn(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(
    Text, NoListedFile,
    testing::Values("", "format=1", "segment", "other-records=0 bytes=0 crc32=00000000",
                    "segment number=1 records=2 bytes=0 algorithm=0 parameters=0,0,0 "
                    "crc32=00000000 file=-",
                    "damaged file=segment-000001 reason=it is not listed", "reason=segment "));

class InvalidListedFile : public testing::TestWithParam<const char*> {};

TEST_P(InvalidListedFile, HasNoName) {
  const auto file = fileIn(GetParam());
  ASSERT_TRUE(file);
  EXPECT_EQ(file->name, "");
}

INSTANTIATE_TEST_SUITE_P(Text, InvalidListedFile,
                         testing::Values("segment ", "segment number=1 file=segment-000001",
                                         "other-records=1", "other-records=", "unfinished ",
                                         "unfinished file=../x bytes=3 crc32=ccddeeff"));

}  // namespace
}  // namespace orvane::test
