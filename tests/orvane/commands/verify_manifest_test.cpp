// What orvane verify makes of the lines of a manifest.

#include <gtest/gtest.h>

#include <filesystem>

#include "support/captured.hpp"
#include "support/text.hpp"
#include "verify_fixture.hpp"

namespace orvane::test::verify_command {
namespace {

namespace fs = std::filesystem;

class VerifyManifest : public VerifyTest {};

TEST_F(VerifyManifest, ReportsADamagedManifestAlone) {
  writeStream(kFirst);
  std::string manifest = readFile(path(kFirst, "manifest"));
  manifest.replace(manifest.find("bytes=6"), 7, "bytes=7");
  write(kFirst, "manifest", manifest);
  const std::string right = withChecksum(manifest.substr(0, manifest.rfind("crc32=")));
  expectFault("manifest", "the checksum of its lines is " +
                              right.substr(right.rfind("crc32=") + 6, 8) + " instead of " +
                              manifest.substr(manifest.rfind("crc32=") + 6, 8) +
                              "; the other files were not checked");
}

TEST_F(VerifyManifest, ReportsTheManifestOfAnotherStream) {
  writeStream(kFirst);
  writeStream(kSecond);
  fs::copy(path(kSecond, "manifest"), path(kFirst, "manifest"),
           fs::copy_options::overwrite_existing);
  expectFault("manifest",
              "it is that of stream 20261121T023230-4711_1; the other files were not checked");
}

TEST_F(VerifyManifest, ChecksAStreamThatWasMovedToAFolderOfAnotherName) {
  writeStream(kFirst);
  fs::rename(path(kFirst), path("copy"));
  expectWhole();
  write("copy", "segment-000000", "hellO");
  EXPECT_TRUE(contains(verify().out, path("copy", "segment-000000") + ": its checksum is "));
}

TEST_F(VerifyManifest, RefusesAManifestOfAFormatThatIsNotKnown) {
  write(kFirst, "manifest", "format=3\n");
  expectFault("manifest", "format 3 is not known: " + path(kFirst, "manifest") +
                              " was written by another release: use that one to read it");
}

TEST_F(VerifyManifest, ReportsThatAManifestIsMissing) {
  writeStream(kFirst);
  fs::remove(path(kFirst, "manifest"));
  expectFault("manifest", "it is missing");
}

TEST_F(VerifyManifest, ReportsAStreamThatADeadServerLeft) {
  const std::string fault =
      "it is not finished: its server died; the next orvaned with this store finishes it";
  write(kFirst, "manifest.part", headOf(kFirst));
  write(kFirst, "segment-000000", "hello");
  expectFault("manifest", fault);
  fs::remove(path(kFirst, "segment-000000"));
  fs::remove(path(kFirst, "manifest.part"));
  expectFault("manifest", fault);
}

TEST_F(VerifyManifest, ChecksOtherRecordsAndWhatADeadServerLeft) {
  write(kFirst, "other-records", textOf(kExample).substr(8, 48) + "hello");
  write(kFirst, "segment-000000.part", "hello");
  const std::string others =
      "unfinished file=segment-000000.part bytes=5 crc32=3610a686\n"
      "other-records=1 bytes=5 crc32=a95909f2\nskipped=0\n";
  write(kFirst, "manifest",
        withChecksum(headOf(kFirst) + others +
                     endingOf(kFirst, "records=1 bytes=5 segments=0", "cut-off")));
  expectWhole();
  write(kFirst, "other-records", textOf(kExample).substr(8, 48) + "hellO");
  write(kFirst, "segment-000000.part", "hellO");
  const Ended ended = verify();
  EXPECT_TRUE(contains(ended.out, path(kFirst, "other-records") + ": its checksum is "));
  EXPECT_EQ(ended.err, "orvane verify: 2 faults in 1 stream\n");
}

TEST_F(VerifyManifest, ReportsWhatAServerFoundDamaged) {
  writeStream(kFirst);
  write(kFirst, "segment-000000.part", "hell");
  fs::remove(path(kFirst, "segment-000000"));
  write(
      kFirst, "manifest",
      withChecksum(headOf(kFirst) + kHello + kWorld +
                   "damaged file=segment-000000 reason=it%20has%204%20bytes%20instead%20of%205\n" +
                   endingOf(kFirst, "records=1 bytes=6 segments=1", "broken")));
  expectFault("segment-000000",
              "it was damaged when a server finished the stream: it has 4 bytes instead of 5");
}

// The server that could not rename the file has stored all of it.
TEST_F(VerifyManifest, FindsAFileWholeThatCouldNotBeRenamed) {
  writeStream(kFirst);
  fs::rename(path(kFirst, "segment-000001"), path(kFirst, "segment-000001.part"));
  const auto write = [this](const std::string& end, const std::string& reason) {
    StoredStreams::write(kFirst, "manifest",
                         withChecksum(headOf(kFirst) + kHello + kWorld + kNoOthers +
                                      endingOf(kFirst, "records=2 bytes=11 segments=2", end,
                                               "2026-11-21T02:32:31.004Z", reason)));
  };
  write("broken", "cannot%20rename%20segment-000001.part");
  expectWhole();
  write("broken", "cannot%20rename%20segment-000000.part");
  EXPECT_EQ(verify().how, "exit 1");
  write("stopped", "cannot%20rename%20segment-000001.part");
  EXPECT_EQ(verify().how, "exit 1");
  write("broken", "cannot%20rename%20segment-000001.part");
  StoredStreams::write(kFirst, "segment-000001.part", "World!");
  expectFault("segment-000001.part", "its checksum is 76289dde instead of 718498e8");
}

class VerifyFormat1 : public VerifyTest {
 protected:
  VerifyFormat1() {
    writeStream(kFirst);
    change("", "");
  }

  // Writes the manifest with another text in place of `from`.
  void change(const std::string& from, const std::string& to) const {
    std::string lines = headOf(kFirst, 1) + kHello + kWorld + kNoOthers +
                        endingOf(kFirst, "records=2 bytes=11 segments=2", "closed", "");
    ASSERT_NE(lines.find(from), std::string::npos);
    write(kFirst, "manifest", lines.replace(lines.find(from), from.size(), to));
  }
  void expectManifestFault(const std::string& fault) const {
    expectFound(line("manifest", fault + "; the other files were not checked"), "1 fault");
  }
};

TEST_F(VerifyFormat1, SaysThatNotEveryChangeCanBeFound) {
  writeStream(kSecond);
  const Ended ended = verify();
  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_TRUE(matches(ended.out, summary("2 streams, 4 files, 22 B") +
                                     "of these, 1 stream of format 1: a change of its manifest "
                                     "that contradicts nothing cannot be found\n"));
}

TEST_F(VerifyFormat1, FindsAChangeThatContradictsTheFolder) {
  change("queue=orders", "queue=order");
  expectManifestFault("it is that of queue order");
  change("stream=20261121T023224-4711_0", "stream=20261121T023224-4711_1");
  expectManifestFault("it is that of stream 20261121T023224-4711_1");
}

TEST_F(VerifyFormat1, FindsAChangeThatContradictsTheOtherLines) {
  change("receipt stream=20261121T023224-4711_0", "receipt stream=20261121T023224-4711_1");
  expectManifestFault("its receipt is that of stream 20261121T023224-4711_1");
  const std::string sum = "its lines give \"receipt stream=20261121T023224-4711_0 ";
  change("number=1 records=1", "number=1 records=2");
  expectManifestFault(sum + "records=3 bytes=11 segments=2 end=closed\"");
  change("bytes=6", "bytes=7");
  expectManifestFault(sum + "records=2 bytes=12 segments=2 end=closed\"");
  change("other-records=0 bytes=0", "other-records=1 bytes=2");
  expectManifestFault(sum + "records=3 bytes=13 segments=2 end=closed\"");
  change("segments=2", "segments=3");
  expectManifestFault(sum + "records=2 bytes=11 segments=2 end=closed\"");
  change("\nrecords=2", "\nrecords=3");
  expectManifestFault("line 9 is not what a server writes there");
}

TEST_F(VerifyFormat1, FindsAChangeThatContradictsAFile) {
  change("crc32=3610a686", "crc32=3610a687");
  expectFound(line("segment-000000", "its checksum is 3610a686 instead of 3610a687"), "1 fault");
}

// A damaged segment is not in the receipt.
TEST_F(VerifyFormat1, CountsNothingWhereAServerFoundDamage) {
  change(kNoOthers, "damaged file=segment-000001 reason=it is not there\n");
  expectFound(
      line("segment-000001", "it was damaged when a server finished the stream: it is not there"),
      "1 fault");
}

}  // namespace
}  // namespace orvane::test::verify_command
