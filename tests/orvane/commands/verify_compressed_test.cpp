// orvane verify of streams whose segments are compressed.

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>

#include "support/eventually.hpp"
#include "support/wire.hpp"
#include "verify_fixture.hpp"

namespace orvane::test::verify_command {
namespace {

// A stream with "hello" compressed, in a file of 17 bytes, and "world!" plain.
class VerifyOfCompressedFiles : public VerifyTest {
 protected:
  VerifyOfCompressedFiles() {
    writeFrame("28b52ffd 00 58 280000 68656c6c6f 010000");
    write(kFirst, "segment-000001", "world!");
    write(kFirst, "manifest",
          withChecksum(headOf(kFirst) +
                       "segment number=0 records=1 bytes=5 algorithm=0 parameters=0,0,0 "
                       "crc32=3610a686 stored=17 file=segment-000000.zst\n" +
                       kWorld + kNoOthers + endingOf(kFirst, "records=2 bytes=11 segments=2")));
  }

  static std::string bytes(const std::string& digits) {
    const Bytes all = hex(digits);
    return {all.begin(), all.end()};
  }
  void writeFrame(const std::string& digits) const { write(kFirst, kFile, bytes(digits)); }

  static constexpr char kFile[] = "segment-000000.zst";
};

TEST_F(VerifyOfCompressedFiles, FindsThemWholeAndCountsTheBytesOfTheFiles) {
  const Ended ended = verify();
  EXPECT_EQ(ended.how, "exit 0") << ended.out;
  EXPECT_TRUE(matches(ended.out, summary("1 stream, 2 files, 23 B")));
  EXPECT_TRUE(contains(verify({"--json"}).out,
                       R"("records":2,"bytes":11,"segments":2,"end":"closed","checkedFiles":2,)"
                       R"("damaged":[]})"));
}

TEST_F(VerifyOfCompressedFiles, FindsAFileOfAnotherSize) {
  writeFrame("28b52ffd 00 58 280000 68656c6c6f");
  expectFault(kFile, "its file has 14 bytes instead of 17");
  writeFrame("28b52ffd 00 58 280000 68656c6c6f 000000 010000");
  expectFault(kFile, "its file has 20 bytes instead of 17");
}

TEST_F(VerifyOfCompressedFiles, FindsOtherData) {
  writeFrame("28b52ffd 00 58 280000 68656c6c70 010000");
  expectFault(kFile, "its checksum is bb18ab73 instead of 3610a686");
  writeFrame("28b52ffd 00 58 2a0000 78 2a0000 78 010000");
  expectFault(kFile, "it has 10 bytes instead of 5");
}

TEST_F(VerifyOfCompressedFiles, FindsAFileThatCannotBeDecompressed) {
  writeFrame("29b52ffd 00 58 280000 68656c6c6f 010000");
  expectFault(kFile, "its compressed data is invalid: cannot read " + path(kFirst, kFile));
  writeFrame("28b52ffd 00 58 400000 68656c6c6f 68656c");
  expectFault(kFile, "its compressed data has no end: cannot read all of " + path(kFirst, kFile));
}

// Here the window is larger.
TEST_F(VerifyOfCompressedFiles, TakesTheSameDataForWhole) {
  writeFrame("28b52ffd 00 60 280000 68656c6c6f 010000");
  expectWhole();
}

TEST_F(VerifyOfCompressedFiles, FindsThePlainFileThatACompressedOneReplaced) {
  write(kFirst, "segment-000000.part", "hello");
  expectFault("segment-000000.part", "the manifest does not list it");
}

TEST_F(VerifyOfCompressedFiles, FindsBothNamesOfARenamedFile) {
  std::filesystem::rename(path(kFirst, kFile), path(kFirst, "segment-000000"));
  expectFound(
      line(kFile, "it is missing") + line("segment-000000", "the manifest does not list it"),
      "2 faults");
}

// A file of 3.2 MB with 105 GB of data, which takes long to decompress.
TEST_F(VerifyOfCompressedFiles, ShowsTheProgressInBytesOfTheFiles) {
  std::string frame = bytes("28b52ffd 00 58");
  for (int block = 0; block < 800000; ++block) {
    frame += std::string("\x02\0\x10x", 4);  // 131072 times the same byte
  }
  write(kFirst, kFile, frame + bytes("010000"));
  write(kFirst, "manifest",
        withChecksum(headOf(kFirst) +
                     "segment number=0 records=1 bytes=104857600000 algorithm=0 parameters=0,0,0 "
                     "crc32=00000000 stored=3200009 file=segment-000000.zst\n" +
                     kWorld + kNoOthers +
                     endingOf(kFirst, "records=2 bytes=104857600006 segments=2")));

  Process process({ORVANE_PATH, "verify", store.path()}, {.errorTerminal = true});
  std::string shown;
  EXPECT_TRUE(eventually([&] {
    shown += process.terminalOutput();
    return shown.find(" of 3.20 MB, ") != std::string::npos;
  })) << shown;
  process.signal(SIGINT);
  EXPECT_EQ(process.wait().how, "signal 2");
}

// As a broken stream leaves it.
TEST_F(VerifyOfCompressedFiles, KnowsAFileThatCouldNotBeRenamed) {
  const std::string part = std::string(kFile) + ".part";
  std::filesystem::rename(path(kFirst, kFile), path(kFirst, part));
  write(kFirst, "manifest",
        withChecksum(headOf(kFirst) +
                     "segment number=0 records=1 bytes=5 algorithm=0 parameters=0,0,0 "
                     "crc32=3610a686 stored=17 file=segment-000000.zst\n" +
                     kWorld + kNoOthers +
                     endingOf(kFirst, "records=2 bytes=11 segments=2", "broken",
                              "2026-11-21T02:32:31.004Z", "cannot%20rename%20" + part)));
  expectWhole();
}

}  // namespace
}  // namespace orvane::test::verify_command
