#include "store/output_file.hpp"

#include <gtest/gtest.h>

#include <filesystem>

#include "support/limits.hpp"
#include "support/temp_folder.hpp"
#include "support/throws.hpp"
#include "support/wire.hpp"

namespace {

using orvane::test::Bytes;
using orvane::test::bytesOf;
using orvane::test::FileSizeLimit;
using orvane::test::namesIn;
using orvane::test::readFile;
using orvane::test::TempFolder;
using orvane::test::throwsErrno;
using orvane::test::writeFile;
using orvaned::OutputFile;
using orvaned::Sync;

class OutputFileTest : public testing::Test {
 protected:
  TempFolder folder;
  orvaned::LocalDirectory directory{folder.path()};
  const std::string path = folder.path() + "/out";
};

TEST_F(OutputFileTest, IsNotCreatedWithoutBytes) {
  OutputFile file(&directory, "out", Sync::segment);
  file.append({});
  file.flush();
  EXPECT_EQ(file.records(), 1U);
  EXPECT_EQ(file.bytes(), 0U);
  file.finish("out.done");
  EXPECT_EQ(namesIn(folder.path()), std::vector<std::string>{});
}

TEST_F(OutputFileTest, GathersSmallRecordsUntilItIsFlushed) {
  OutputFile file(&directory, "out", Sync::segment);
  file.append(bytesOf("one"), bytesOf("two"));
  file.append({}, bytesOf("three"));
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_EQ(file.records(), 0U);
  file.flush();
  EXPECT_EQ(readFile(path), "onetwothree");
  EXPECT_EQ(file.records(), 2U);
  EXPECT_EQ(file.bytes(), 11U);
}

TEST_F(OutputFileTest, KeepsTheOrderOfSmallAndLargeRecords) {
  OutputFile file(&directory, "out", Sync::segment);
  const Bytes large(200000, 'L');
  std::string expected;
  for (int i = 0; i < 3; ++i) {
    file.append(bytesOf("head"), large);
    file.append(bytesOf("small"));
    expected += "head" + std::string(200000, 'L') + "small";
  }
  file.flush();
  EXPECT_EQ(readFile(path), expected);
  EXPECT_EQ(file.records(), 6U);
  EXPECT_EQ(file.bytes(), 600027U);
}

TEST_F(OutputFileTest, WritesAFullBufferByItself) {
  OutputFile file(&directory, "out", Sync::segment);
  for (int i = 0; i < 1000; ++i) {
    file.append(Bytes(100, 'x'));
  }
  EXPECT_GT(std::filesystem::file_size(path), 60000U);
  EXPECT_EQ(std::filesystem::file_size(path), file.bytes());
}

TEST_F(OutputFileTest, GetsItsFinalNameWithAllItsBytes) {
  OutputFile file(&directory, "out", Sync::segment);
  file.append(bytesOf("data"));
  file.finish("final");
  EXPECT_EQ(namesIn(folder.path()), std::vector<std::string>{"final"});
  EXPECT_EQ(readFile(folder.path() + "/final"), "data");
}

TEST_F(OutputFileTest, ContinuesAFileThatIsThere) {
  writeFile(path, "old ");
  OutputFile file(&directory, "out", Sync::segment);
  file.append(bytesOf("new"));
  file.flush();
  EXPECT_EQ(readFile(path), "old new");
  EXPECT_EQ(file.bytes(), 3U);
}

TEST_F(OutputFileTest, IsForItsOwnerOnly) {
  OutputFile file(&directory, "out", Sync::segment);
  file.append(bytesOf("data"));
  file.flush();
  EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(0600));
}

TEST_F(OutputFileTest, TakesBackTheRecordsOfAFailedFlush) {
  OutputFile file(&directory, "out", Sync::segment);
  file.append(bytesOf("0123456789"));
  file.flush();
  file.append(bytesOf("abcdefghij"));
  {
    FileSizeLimit limit(15);
    EXPECT_TRUE(throwsErrno(1003, "File too large: cannot write " + path, [&] { file.flush(); }));
    EXPECT_EQ(readFile(path), "0123456789");
    EXPECT_EQ(file.records(), 1U);
    EXPECT_EQ(file.bytes(), 10U);
  }
  file.flush();  // the disk has room again
  EXPECT_EQ(readFile(path), "0123456789abcdefghij");
  EXPECT_EQ(file.records(), 2U);
}

TEST_F(OutputFileTest, LeavesNoFileBehindWhenNotEvenItsFirstRecordFits) {
  OutputFile file(&directory, "out", Sync::segment);
  file.append(bytesOf("0123456789"));
  {
    FileSizeLimit limit(5);
    EXPECT_TRUE(throwsErrno(1003, "File too large: cannot write " + path, [&] { file.flush(); }));
    EXPECT_EQ(namesIn(folder.path()), std::vector<std::string>{});
  }
  file.flush();  // the disk has room again
  EXPECT_EQ(readFile(path), "0123456789");
}

TEST_F(OutputFileTest, TakesBackALargeRecordThatDoesNotFitWhole) {
  writeFile(path, "old");
  OutputFile file(&directory, "out", Sync::segment);
  file.append(bytesOf("small"));
  const Bytes large(100000, 'L');
  FileSizeLimit limit(50000);
  EXPECT_TRUE(throwsErrno(1003, "File too large: cannot write " + path,
                          [&] { file.append(bytesOf("head"), large); }));
  EXPECT_EQ(readFile(path), "oldsmall");
  EXPECT_EQ(file.records(), 1U);
  EXPECT_EQ(file.bytes(), 5U);
}

TEST_F(OutputFileTest, HasTheChecksumOfItsBytes) {
  OutputFile file(&directory, "out", Sync::segment);
  EXPECT_EQ(file.checksum(), 0x00000000U);
  file.append(bytesOf("01234"), bytesOf("56789"));
  file.flush();
  EXPECT_EQ(file.checksum(), 0xa684c7c6U);
}

TEST_F(OutputFileTest, HasTheChecksumOfSmallAndLargeRecords) {
  OutputFile file(&directory, "out", Sync::segment);
  const Bytes large(200000, 'L');
  for (int i = 0; i < 3; ++i) {
    file.append(bytesOf("head"), large);
    file.append(bytesOf("small"));
  }
  file.flush();
  EXPECT_EQ(file.checksum(), 0x37c42f6cU);
}

TEST_F(OutputFileTest, LeavesWhatItTookBackOutOfTheChecksum) {
  OutputFile file(&directory, "out", Sync::segment);
  file.append(bytesOf("small"));
  const Bytes large(100000, 'L');
  FileSizeLimit limit(50000);
  EXPECT_ANY_THROW(file.append(bytesOf("head"), large));
  EXPECT_EQ(file.checksum(), 0x7545ea13U);
}

TEST_F(OutputFileTest, NoticesAtAFlushThatItsFileIsGone) {
  OutputFile file(&directory, "out", Sync::segment);
  file.append(bytesOf("data"));
  file.flush();
  std::filesystem::remove(path);
  EXPECT_TRUE(
      throwsErrno(1003, "No such file or directory: cannot write " + path, [&] { file.flush(); }));
}

TEST_F(OutputFileTest, ResumesAfterItsFirstBytes) {
  writeFile(path, "keep torn");
  OutputFile file(&directory, "out", Sync::segment);
  file.resume(5);
  file.append(bytesOf("new"));
  file.finish("final");
  EXPECT_EQ(readFile(folder.path() + "/final"), "keep new");
}

TEST_F(OutputFileTest, SaysWhatItCannotCreate) {
  orvaned::LocalDirectory none(folder.path() + "/none");
  OutputFile file(&none, "out", Sync::segment);
  file.append(bytesOf("data"));
  EXPECT_TRUE(throwsErrno(1003,
                          "No such file or directory: cannot create " + folder.path() + "/none/out",
                          [&] { file.flush(); }));
}

TEST_F(OutputFileTest, SaysWhatItCannotRename) {
  OutputFile file(&directory, "out", Sync::segment);
  file.append(bytesOf("data"));
  EXPECT_TRUE(throwsErrno(1003, "No such file or directory: cannot rename " + path,
                          [&] { file.finish("none/final"); }));
  EXPECT_EQ(readFile(path), "data");
}

TEST_F(OutputFileTest, InTheNullStoreOnlyCounts) {
  OutputFile file(nullptr, "segment", Sync::always);
  file.append(bytesOf("head"), bytesOf("data"));
  file.append(Bytes(200000, 'L'));
  file.flush();
  EXPECT_EQ(file.records(), 2U);
  EXPECT_EQ(file.bytes(), 200008U);
  file.finish("final");
}

}  // namespace
