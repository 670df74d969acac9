#include "store_format/manifest_reader.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

#include "support/manifest.hpp"
#include "support/temp_folder.hpp"

namespace orvane::test {
namespace {

using tool::fileIn;
using tool::ManifestReader;

class ManifestReaderTest : public testing::Test {
 protected:
  ManifestReader readerOf(const std::string& content) const {
    writeFile(path, content);
    return {tool::openStored(path), path};
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
  ManifestReader manifest{tool::Fd(), path};
  EXPECT_EQ(manifest.next(), std::nullopt);
  EXPECT_EQ(manifest.bytes(), 0U);
  EXPECT_EQ(manifest.error(), EBADF);
}

TEST_F(ManifestReaderTest, KnowsTheFormatFromTheFirstLine) {
  for (const auto& [content, format] :
       {std::pair("format=1\n", 1), std::pair("format=2\nformat=1\n", 2), std::pair("", 0),
        std::pair("format=\n", 0), std::pair("format=x\n", 0), std::pair("format=1", 0),
        std::pair("queue=q\nformat=2\n", 0)}) {
    ManifestReader manifest = readerOf(content);
    while (manifest.next()) {
    }
    EXPECT_EQ(manifest.format(), format) << content;
  }
}

TEST_F(ManifestReaderTest, RefusesAFormatThatIsNotKnownByItsName) {
  for (const char* const format : {"3", "0", "01", "11", "99999999999999999999"}) {
    ManifestReader manifest = readerOf("format=" + std::string(format) + "\nqueue=q\n");
    try {
      manifest.next();
      FAIL() << format;
    } catch (const std::runtime_error& e) {
      EXPECT_EQ(e.what(), "format " + std::string(format) + " is not known: " + path +
                              " was written by another release: use that one to read it");
    }
  }
}

// What is wrong with a manifest whose lines have been read.
std::string faultOf(ManifestReader manifest) {
  while (manifest.next()) {
  }
  return manifest.fault();
}

TEST_F(ManifestReaderTest, ChecksTheLinesOfFormat2AgainstTheLastOne) {
  EXPECT_EQ(crc32Of("123456789"), 0xcbf43926U);
  EXPECT_EQ(faultOf(readerOf("format=2\nqueue=q\ncrc32=908c4716\n")), "");
  EXPECT_EQ(faultOf(readerOf(withChecksum("format=2\n" + std::string(200000, 'x') + "\n"))), "");
  EXPECT_EQ(faultOf(readerOf("format=2\nqueue=r\ncrc32=908c4716\n")),
            "the checksum of its lines is bba114d5 instead of 908c4716");
  EXPECT_EQ(faultOf(readerOf("format=2\nqueue=q\ncrc32=908c4717\n")),
            "the checksum of its lines is 908c4716 instead of 908c4717");
  for (const char* const last : {"", "crc32=908C4716\n", "crc32=908c471\n", "reason=\n"}) {
    EXPECT_NE(faultOf(readerOf("format=2\nqueue=q\n" + std::string(last))), "") << last;
  }
  EXPECT_EQ(faultOf(readerOf("format=2\nqueue=q\n")),
            "its last line is not the checksum of the others, 6e3f218b");
  EXPECT_EQ(faultOf(readerOf("format=2\nqueue=q\ncrc32=908c4716\nmore\n")),
            "its last line is not the checksum of the others, c179607f");
}

TEST_F(ManifestReaderTest, FindsAnEndThatIsCutOffInEachFormat) {
  EXPECT_EQ(faultOf(readerOf("format=1\nqueue=q\n")), "");
  EXPECT_EQ(faultOf(readerOf("format=1\nqueue=q")), "its last line is incomplete");
  EXPECT_EQ(faultOf(readerOf("format=2\nqueue=q\ncrc32=908c4716")), "its last line is incomplete");
  EXPECT_EQ(faultOf(readerOf("queue=q\n")), "its first line does not name its format");
  EXPECT_EQ(faultOf(readerOf("")), "its first line does not name its format");
}

TEST_F(ManifestReaderTest, CountsTheChecksumOfTheLinesThatItReturned) {
  ManifestReader manifest = readerOf("123456\n78\n9");
  EXPECT_EQ(manifest.checksum(), 0U);
  manifest.next();
  EXPECT_EQ(manifest.checksum(), crc32Of("123456\n"));
  manifest.next();
  EXPECT_EQ(manifest.checksum(), crc32Of("123456\n78\n"));
  manifest.next();
  EXPECT_EQ(manifest.checksum(), crc32Of("123456\n78\n"));
}

void expectListed(const std::string& line, const std::string& name, std::uint64_t bytes,
                  std::uint32_t checksum, std::uint64_t stored = 0) {
  const auto file = fileIn(line);
  ASSERT_TRUE(file);
  EXPECT_EQ(file->name, name);
  EXPECT_EQ(file->content.bytes, bytes);
  EXPECT_EQ(file->content.checksum, checksum);
  EXPECT_EQ(file->content.stored, stored);
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

TEST(ManifestFile, ThatIsCompressedIsListedWithBothSizes) {
  expectListed(
      "segment number=3 records=2 bytes=9 algorithm=1 parameters=7,8,9 crc32=0011aabb stored=8 "
      "file=segment-000003.zst",
      "segment-000003.zst", 9, 0x0011aabb, 8);
  expectListed("unfinished file=segment-000002.zst.part bytes=3 crc32=ccddeeff stored=2",
               "segment-000002.zst.part", 3, 0xccddeeff, 2);
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
