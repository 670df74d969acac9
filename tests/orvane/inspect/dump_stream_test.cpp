// orvane dump of a stored stream.

#include <gtest/gtest.h>

#include <filesystem>

#include "support/captured.hpp"
#include "support/server.hpp"
#include "support/text.hpp"

namespace orvane::test {
namespace {

// A stream with two segments, as a server stores it.
class DumpOfAStream : public testing::Test {
 protected:
  DumpOfAStream() {
    write("manifest", first + second + last);
    write("segment-000000", "hello");
    write("segment-000001", "world!");
  }

  void write(const std::string& name, const std::string& content) const {
    writeFile(folder.path() + "/" + name, content);
  }
  Ended dump(const std::vector<std::string>& options = {}) const {
    std::vector<std::string> command = {ORVANE_PATH, "dump", folder.path()};
    command.insert(command.end(), options.begin(), options.end());
    return run(command);
  }
  void expectDamage(const std::string& line) const {
    const Ended ended = dump();
    EXPECT_EQ(ended.how, "exit 1");
    EXPECT_EQ(ended.out, first + "  segment-000000: whole\n" + second + line + last);
    EXPECT_EQ(ended.err, "orvane dump: 1 broken file in " + folder.path() + "\n");
  }

  const TempFolder folder;
  const std::string first =
      "format=1\nqueue=orders\nstream=20261121T023224-4711_0\n"
      "segment number=0 records=1 bytes=5 algorithm=0 parameters=0,0,0 crc32=3610a686 "
      "file=segment-000000\n";
  const std::string second =
      "segment number=1 records=1 bytes=6 algorithm=0 parameters=0,0,0 crc32=718498e8 "
      "file=segment-000001\n";
  const std::string last =
      "segment number=2 records=0 bytes=0 algorithm=0 parameters=0,0,0 crc32=00000000 file=-\n"
      "other-records=0 bytes=0 crc32=00000000\nskipped=0\n"
      "receipt stream=20261121T023224-4711_0 records=2 bytes=11 segments=2 end=closed\n"
      "records=2\nbytes=11\nend=closed\nreason=\n";
};

TEST_F(DumpOfAStream, PrintsTheManifestAndWhetherEachFileIsWhole) {
  const Ended ended = dump();
  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_EQ(ended.out,
            first + "  segment-000000: whole\n" + second + "  segment-000001: whole\n" + last);
  EXPECT_EQ(ended.err, "");
}

TEST_F(DumpOfAStream, FindsAFileOfAnotherSize) {
  write("segment-000001", "world");
  expectDamage("  segment-000001: damaged: it has 5 bytes instead of 6\n");
}

TEST_F(DumpOfAStream, FindsAFileWithOtherBytes) {
  write("segment-000001", "World!");
  expectDamage("  segment-000001: damaged: its checksum is 76289dde instead of 718498e8\n");
}

TEST_F(DumpOfAStream, FindsThatAFileIsMissing) {
  std::filesystem::remove(folder.path() + "/segment-000001");
  expectDamage("  segment-000001: damaged: No such file or directory: cannot read " +
               folder.path() + "/segment-000001\n");
}

TEST_F(DumpOfAStream, ChecksOtherRecordsAndWhatADeadServerLeft) {
  write("other-records", textOf(kExample).substr(8, 48) + "hello");
  write("segment-000003.part", "hello");
  write("manifest",
        "other-records=1 bytes=5 crc32=a95909f2\n"
        "unfinished file=segment-000003.part bytes=5 crc32=3610a686\n"
        "damaged file=segment-000001 reason=it has 8 bytes instead of 9\n");

  const Ended ended = dump();

  EXPECT_EQ(ended.how, "exit 0") << ended.out;
  EXPECT_EQ(ended.out,
            "other-records=1 bytes=5 crc32=a95909f2\n"
            "  other-records: whole\n"
            "unfinished file=segment-000003.part bytes=5 crc32=3610a686\n"
            "  segment-000003.part: whole\n"
            "damaged file=segment-000001 reason=it has 8 bytes instead of 9\n");
}

TEST_F(DumpOfAStream, ReportsLinesThatMakeNoSense) {
  for (const std::string line :
       {"segment number=0 records=1", "other-records=1 bytes=x", "unfinished file=segment-000000",
        "unfinished file=../segment-000000 bytes=5 crc32=3610a686"}) {
    write("manifest", line + "\n");
    const Ended ended = dump();
    EXPECT_EQ(ended.how, "exit 1");
    EXPECT_EQ(ended.out, line + "\n  damaged: this line makes no sense\n");
  }
}

TEST_F(DumpOfAStream, WithJsonPrintsOneObjectALine) {
  write("segment-000001", "world");
  write("manifest", "queue=orders\n" + second + "reason=\"\n");
  const Ended ended = dump({"--json"});
  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.out,
            "{\"line\":\"queue=orders\"}\n"
            "{\"line\":\"segment number=1 records=1 bytes=6 algorithm=0 parameters=0,0,0 "
            "crc32=718498e8 file=segment-000001\",\"file\":\"segment-000001\","
            "\"fault\":\"it has 5 bytes instead of 6\"}\n"
            "{\"line\":\"reason=\\\"\"}\n");
  write("segment-000001", "world!");
  EXPECT_TRUE(contains(dump({"--json"}).out, "\"file\":\"segment-000001\",\"fault\":null}\n"));
}

// A manifest's reason may name a file in any encoding.
TEST_F(DumpOfAStream, WithJsonReplacesWhatIsNoUtf8) {
  write("manifest", "reason=caf\xe9 \xc3\xa9\n");
  EXPECT_EQ(dump({"--json"}).out, "{\"line\":\"reason=caf\xef\xbf\xbd \xc3\xa9\"}\n");
}

TEST_F(DumpOfAStream, NeedsAStreamThatHasEnded) {
  std::filesystem::rename(folder.path() + "/manifest", folder.path() + "/manifest.part");
  const Ended ended = dump();
  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.err, "orvane dump: the stream in " + folder.path() +
                           " has not ended: orvaned is storing it, or died; the next orvaned with "
                           "this store finishes it then\n");
}

TEST_F(DumpOfAStream, NeedsAStream) {
  std::filesystem::remove(folder.path() + "/manifest");
  const Ended ended = dump();
  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.out, "");
  EXPECT_EQ(ended.err, "orvane dump: no stream is stored in " + folder.path() +
                           ": name a folder with a manifest, such as STORE/QUEUE-ID\n");
}

TEST_F(DumpOfAStream, FollowsNoSymbolicLink) {
  const std::string elsewhere = folder.path() + "/elsewhere";
  writeFile(elsewhere, "world!");
  std::filesystem::remove(folder.path() + "/segment-000001");
  std::filesystem::create_symlink(elsewhere, folder.path() + "/segment-000001");
  expectDamage("  segment-000001: damaged: Too many levels of symbolic links: cannot read " +
               folder.path() + "/segment-000001\n");

  std::filesystem::rename(folder.path() + "/manifest", elsewhere);
  std::filesystem::create_symlink(elsewhere, folder.path() + "/manifest");
  const Ended ended = dump();
  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.err, "orvane dump: Too many levels of symbolic links: cannot read " +
                           folder.path() + "/manifest\n");
}

TEST(DumpOfAStoredStream, FindsAllOfItWhole) {
  Server server;
  ASSERT_EQ(
      run(server.sendCommand({"--segment-size", "100000", "-"}), std::string(250000, 'x')).how,
      "exit 0");

  const Ended ended = run({ORVANE_PATH, "dump", server.streams().at(0)});

  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  EXPECT_TRUE(contains(ended.out, "\n  segment-000000: whole\n"));
  EXPECT_TRUE(contains(ended.out, "\n  segment-000002: whole\n"));
  EXPECT_TRUE(contains(ended.out, "\nend=closed\n"));
}

}  // namespace
}  // namespace orvane::test
