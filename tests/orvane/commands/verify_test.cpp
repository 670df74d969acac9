#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <filesystem>

#include "support/eventually.hpp"
#include "support/server.hpp"
#include "support/text.hpp"
#include "verify_fixture.hpp"

namespace orvane::test::verify_command {
namespace {

namespace fs = std::filesystem;

class Verify : public VerifyTest {};

TEST_F(Verify, FindsWholeStreamsWhole) {
  writeStream(kFirst);
  writeStream(kSecond);
  const Ended ended = verify();
  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_TRUE(matches(ended.out, summary("2 streams, 4 files, 22 B")));
  EXPECT_EQ(ended.err, "");
}

TEST_F(Verify, FindsNothingInAnEmptyStore) {
  EXPECT_TRUE(matches(verify().out, summary("0 streams, 0 files, 0 B")));
}

TEST_F(Verify, FindsAFileWithOtherBytes) {
  writeStream(kFirst);
  writeStream(kSecond);
  write(kFirst, "segment-000001", "World!");
  expectFault("segment-000001", "its checksum is 76289dde instead of 718498e8");
}

TEST_F(Verify, FindsAFileOfAnotherSize) {
  writeStream(kFirst);
  write(kFirst, "segment-000000", "hell");
  expectFault("segment-000000", "it has 4 bytes instead of 5");
  write(kFirst, "segment-000000", "hello2");
  expectFault("segment-000000", "it has 6 bytes instead of 5");
}

TEST_F(Verify, FindsThatAFileIsMissing) {
  writeStream(kFirst);
  fs::remove(path(kFirst, "segment-000000"));
  expectFault("segment-000000", "it is missing");
}

TEST_F(Verify, FindsAFileThatIsNotListed) {
  writeStream(kFirst);
  write(kFirst, "segment-000002", "");
  expectFault("segment-000002", "the manifest does not list it");
}

TEST_F(Verify, FindsBothNamesOfARenamedFile) {
  writeStream(kFirst);
  fs::rename(path(kFirst, "segment-000001"), path(kFirst, "segment-000001.part"));
  expectFound(line("segment-000001", "it is missing") +
                  line("segment-000001.part", "the manifest does not list it"),
              "2 faults");
}

TEST_F(Verify, FollowsNoSymbolicLink) {
  writeStream(kFirst);
  writeFile(store.path() + "/elsewhere", "hello");
  fs::remove(path(kFirst, "segment-000000"));
  fs::create_symlink(store.path() + "/elsewhere", path(kFirst, "segment-000000"));
  expectFault("segment-000000",
              "Too many levels of symbolic links: cannot read " + path(kFirst, "segment-000000"));
}

TEST_F(Verify, WithJsonPrintsAnObjectForEachStream) {
  writeStream(kFirst);
  writeStream(kSecond);
  write("orders-20261121T023240-4711_2", "manifest", "");
  write(kFirst, "segment-000001", "World!");
  write(kFirst, "notes", "");

  const Ended ended = verify({"--json"});

  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(
      ended.out,
      R"({"stream":")" + kFirst + R"(","folder":")" + path(kFirst) +
          R"(","format":2,"records":2,"bytes":11,"segments":2,"end":"closed","checkedFiles":2,)"
          R"("damaged":[{"file":"notes","fault":"the manifest does not list it"},)"
          R"({"file":"segment-000001","fault":"its checksum is 76289dde instead of 718498e8"}]})"
          "\n" +
          R"({"stream":"orders-20261121T023240-4711_2","folder":")" +
          path("orders-20261121T023240-4711_2") +
          R"(","format":null,"records":null,"bytes":null,"segments":null,"end":null,)"
          R"("checkedFiles":0,"damaged":[{"file":"manifest","fault":"its first line does not name )"
          R"(its format; the other files were not checked"}]})"
          "\n" +
          R"({"stream":")" + kSecond + R"(","folder":")" + path(kSecond) +
          R"(","format":2,"records":2,"bytes":11,"segments":2,"end":"closed","checkedFiles":2,)"
          R"("damaged":[]})"
          "\n");
  EXPECT_EQ(ended.err, "orvane verify: 3 faults in 2 streams\n");
}

TEST_F(Verify, ChecksManyStreamsAndReportsThemInOrder) {
  std::string expected;
  for (int i = 100; i < 300; ++i) {
    const std::string id = "orders-20261121T023224-4711_" + std::to_string(i);
    writeStream(id);
    if (i % 7 == 0) {
      write(id, "segment-000001", "World!");
      expected += path(id, "segment-000001") + ": its checksum is 76289dde instead of 718498e8\n";
    }
  }
  const Ended ended = verify();
  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.out.substr(0, ended.out.rfind("checked ")), expected);
  EXPECT_TRUE(contains(ended.out, "checked 200 streams, 400 files, 2.20 kB, "));
  EXPECT_EQ(ended.err, "orvane verify: 28 faults in 28 streams\n");
}

TEST_F(Verify, ChecksAStreamOfManySegments) {
  std::string lines = headOf(kFirst);
  for (int number = 0; number < 300; ++number) {
    char name[32];
    std::snprintf(name, sizeof name, "segment-%06d", number);
    write(kFirst, name, "hello");
    lines += "segment number=" + std::to_string(number) +
             " records=1 bytes=5 algorithm=0 parameters=0,0,0 crc32=3610a686 file=" + name + "\n";
  }
  write(kFirst, "manifest",
        withChecksum(lines + kNoOthers + endingOf(kFirst, "records=300 bytes=1500 segments=300")));
  expectWhole();
  write(kFirst, "segment-000299", "hellO");
  write(kFirst, "segment-000017", "hell");
  const Ended ended = verify();
  EXPECT_TRUE(startsWith(ended.out, line("segment-000017", "it has 4 bytes instead of 5") +
                                        path(kFirst, "segment-000299") + ": its checksum is "));
  EXPECT_EQ(ended.err, "orvane verify: 2 faults in 1 stream\n");
}

TEST_F(Verify, LooksAtNothingElseInAStore) {
  write("notes", "one", "1");
  writeFile(store.path() + "/orders-outside-records", "records");
  write(".orders-20261121T023224-4711_0.new", "manifest.part", "");
  write(".orders-20261121T023224-4711_0.removed", "segment-000000", "");
  EXPECT_TRUE(startsWith(verify().out, "checked 0 streams, 0 files"));
}

TEST_F(Verify, TakesStoresAndIdsAndPartsOfThemAndPaths) {
  writeStream(kFirst);
  writeStream(kSecond);
  write(kSecond, "segment-000000", "hellO");
  const ProcessSetup here = {.environment = {"ORVANE_STORE=" + store.path()}};
  const std::string damaged = path(kSecond, "segment-000000") + ": its checksum is ";
  EXPECT_TRUE(startsWith(runOrvane({"verify"}, here).out, damaged));
  EXPECT_TRUE(startsWith(runOrvane({"verify", "app.log"}, here).out, damaged));
  EXPECT_TRUE(startsWith(runOrvane({"verify", kSecond}, here).out, damaged));
  EXPECT_TRUE(startsWith(runOrvane({"verify", path(kSecond)}).out, damaged));
  EXPECT_EQ(runOrvane({"verify", path(kFirst)}).how, "exit 0");
  EXPECT_EQ(runOrvane({"verify", path(kFirst) + "/"}).how, "exit 0");
  EXPECT_EQ(runOrvane({"verify", "4711_0"}, here).how, "exit 0");

  const TempFolder other;
  const Ended both = runOrvane({"verify", other.path(), path(kFirst), "4711_1"}, here);
  EXPECT_TRUE(contains(both.out, "checked 2 streams, 4 files"));
  EXPECT_EQ(both.how, "exit 1");
}

TEST_F(Verify, RefusesWhatIsNotThere) {
  const Ended path = runOrvane({"verify", store.path() + "/none"});
  EXPECT_EQ(path.how, "exit 1");
  EXPECT_EQ(path.err, "orvane verify: " + store.path() +
                          "/none is neither a store nor a stream: it is no folder\n");
  const Ended id = runOrvane({"verify", "none"}, {.environment = {"ORVANE_STORE=" + store.path()}});
  EXPECT_EQ(id.how, "exit 1");
  EXPECT_TRUE(startsWith(
      id.err, "orvane verify: no stream in the store " + store.path() + " has 'none' in its id"));
}

// Its manifest tells how much there is to read, and the file has no end for as long as the test
// takes.
class VerifyOfALargeFile : public Verify {
 protected:
  VerifyOfALargeFile() {
    write(kFirst, "segment-000000", "");
    fs::resize_file(path(kFirst, "segment-000000"), std::uintmax_t{1} << 40);
    write(kFirst, "manifest",
          withChecksum(headOf(kFirst) +
                       "segment number=0 records=1 bytes=1099511627776 algorithm=0 "
                       "parameters=0,0,0 crc32=00000000 file=segment-000000\n" +
                       kNoOthers + endingOf(kFirst, "records=1 bytes=1099511627776 segments=1")));
  }
};

TEST_F(VerifyOfALargeFile, ShowsProgressOnATerminalUntilItIsInterrupted) {
  Process process({ORVANE_PATH, "verify", store.path()}, {.errorTerminal = true});
  std::string shown;
  ASSERT_TRUE(eventually([&] {
    shown += process.terminalOutput();
    return !shown.empty();
  }));
  process.signal(SIGINT);
  const Ended ended = process.wait();
  EXPECT_EQ(ended.how, "signal 2");
  EXPECT_EQ(ended.out, "");
  EXPECT_TRUE(matches(shown + ended.err,
                      "(\r[0-9.]+ [kMG]?B of 1\\.10 TB, [0-9.]+ [kMG]?B/s, [0-9:]+ left *)+\r +\r"
                      "\rorvane verify: interrupted after 0 streams\r?\n"));
}

TEST_F(VerifyOfALargeFile, ShowsNoProgressToTheQuiet) {
  Process quiet({ORVANE_PATH, "verify", "--quiet", store.path()}, {.errorTerminal = true});
  Process other({ORVANE_PATH, "verify", store.path()}, {.errorTerminal = true});
  ASSERT_TRUE(eventually([&] { return !other.terminalOutput().empty(); }));
  EXPECT_EQ(quiet.terminalOutput(), "");
  quiet.signal(SIGTERM);
  EXPECT_EQ(quiet.wait().how, "signal 15");
}

TEST(VerifyOfAServersStore, FindsItWholeAndLeavesTheOpenStreamOut) {
  Server server;
  ASSERT_EQ(
      run(server.sendCommand({"--segment-size", "100000", "-"}), std::string(250000, 'x')).how,
      "exit 0");
  Process open(server.sendCommand({"-"}));
  open.write(std::string(2000000, 'x'));
  ASSERT_TRUE(eventually([&] {
    return server.streams().size() == 2 &&
           fs::exists(server.streams().at(1) + "/segment-000000.part");
  }));
  const std::string stream = server.streams().at(1);

  const Ended ended = run({ORVANE_PATH, "verify", server.store()});
  const Ended json = run({ORVANE_PATH, "verify", "--json", stream});

  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  EXPECT_TRUE(startsWith(ended.out, stream + ": not checked: the stream is open\n"));
  EXPECT_TRUE(contains(ended.out, "checked 1 stream, 3 files, 250 kB, "));
  EXPECT_EQ(json.how, "exit 0");
  EXPECT_TRUE(startsWith(json.out, R"({"stream":")" + fs::path(stream).filename().string()));
  EXPECT_TRUE(contains(json.out, R"(,"end":"open","checkedFiles":0,"damaged":[]})"));
  open.closeInput();
  EXPECT_EQ(open.wait().how, "exit 0");
  EXPECT_TRUE(
      contains(run({ORVANE_PATH, "verify", server.store()}).out, "checked 2 streams, 4 files"));
}

}  // namespace
}  // namespace orvane::test::verify_command
