// How the real server starts, or says why it does not.

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <orvane/orvane.hpp>

#include "support/lease_client.hpp"
#include "support/queue_pair.hpp"
#include "support/server_process.hpp"
#include "support/temp_folder.hpp"

namespace {

using orvane::test::bytesOf;
using orvane::test::LeasedProducer;
using orvane::test::namesIn;
using orvane::test::Producer;
using orvane::test::QueueName;
using orvane::test::Record;
using orvane::test::ServerProcess;
using orvane::test::TempFolder;
using orvane::test::uniqueQueueName;
using orvane::test::writeFile;

class ServerStartTest : public testing::Test {
 protected:
  // Starts a server that is to end by itself.
  void expectEnd(const std::vector<std::string>& arguments, int exitCode,
                 const std::string& output) {
    ServerProcess server(arguments);
    EXPECT_EQ(server.wait(), exitCode);
    EXPECT_EQ(server.output(), output);
    EXPECT_EQ(namesIn(folder.path()), std::vector<std::string>{});
    for (const std::string& file : namesIn("/dev/shm")) {
      EXPECT_EQ(file.find(name), std::string::npos) << file;
    }
  }

  TempFolder folder;
  const QueueName nameGuard{uniqueQueueName()};
  const QueueName responseGuard{nameGuard.text() + "Response"};
  const std::string& name = nameGuard.text();
};

TEST_F(ServerStartTest, SaysWhenItIsReady) {
  ServerProcess server({"--queue", name, "--store", folder.path()});
  ASSERT_TRUE(server.isServing());
  EXPECT_EQ(server.output(), "TIME info 0 orvaned::serve: serving queue " + name +
                                 " (8 messages of 1048968 bytes), storing into " + folder.path() +
                                 "\n");
}

TEST_F(ServerStartTest, SaysHowItsWorkersAreConfined) {
  ServerProcess server({"--queue", name, "--store", folder.path()});
  ASSERT_TRUE(server.isServing());
  for (const char* part : {" orvaned::prepareConfinement: workers run as user ",
                           " info 0 orvaned::prepareConfinement: workers have no capabilities\n",
                           " orvaned::prepareConfinement: workers are ",
                           " orvaned::prepareConfinement: workers may make "}) {
    EXPECT_NE(server.rawOutput().find(part), std::string::npos) << part;
  }
}

TEST_F(ServerStartTest, WarnsOfEachPartOfTheConfinementThatIsOff) {
  ServerProcess server({"--queue", name, "--store", folder.path(), "--without", "capset",
                        "--without", "landlock", "--without", "seccomp"});
  ASSERT_TRUE(server.isServing());
  for (const char* part : {"capset", "landlock", "seccomp"}) {
    EXPECT_NE(server.rawOutput().find(": --without " + std::string(part) + "\n"), std::string::npos)
        << part;
  }
}

TEST_F(ServerStartTest, RefusesAWorkerUserThatDoesNotExist) {
  const std::string reason =
      geteuid() == 0 ? "there is no such user"
                     : "only a server that runs as root can run its workers as another user";
  expectEnd({"--queue", name, "--store", folder.path(), "--worker-user", "no-such-user"}, 2,
            "TIME error 2 orvaned::main: --worker-user no-such-user: " + reason + "\n");
}

TEST_F(ServerStartTest, WarnsWhenTheLargestRecordCannotPass) {
  ServerProcess server({"--queue", name, "--store", folder.path(), "--message-size", "131127"});
  ASSERT_TRUE(server.isServing());
  EXPECT_EQ(server.output().substr(0, server.output().find('\n')),
            "TIME warning 0 orvaned::serve: --message-size 131127 is less than 131128: a record of "
            "the largest size "
            "cannot pass");
}

TEST_F(ServerStartTest, DoesNotWarnWhenTheLargestRecordJustPasses) {
  ServerProcess server({"--queue", name, "--store", folder.path(), "--message-size", "131128"});
  ASSERT_TRUE(server.isServing());
  EXPECT_EQ(server.output().find("warning"), std::string::npos);
}

TEST_F(ServerStartTest, RefusesANameThatSomethingElseHas) {
  const std::string path = "/dev/shm/" + name + "Response";
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  ServerProcess server({"--queue", name, "--store", folder.path()});
  EXPECT_EQ(server.wait(), 1);
  EXPECT_EQ(server.output(), "TIME error 1 orvaned::main: " + path +
                                 " is in the way: it is no queue: remove it, or take another "
                                 "name\n");
  EXPECT_TRUE(std::filesystem::is_fifo(path));
  EXPECT_FALSE(std::filesystem::exists("/dev/shm/" + name));
  EXPECT_FALSE(std::filesystem::exists("/dev/shm/." + name + ".lock"));
}

TEST_F(ServerStartTest, ASecondServerLeavesTheFirstAlone) {
  ServerProcess first({"--queue", name, "--store", folder.path()});
  ASSERT_TRUE(first.isServing());
  ServerProcess second({"--queue", name, "--store", folder.path()});
  EXPECT_EQ(second.wait(), 1);
  const std::string begin = "TIME error 1 orvaned::main: another orvaned, process ";
  const std::string end = ", holds /dev/shm/." + name + ".lock\n";
  EXPECT_EQ(second.output().substr(0, begin.size()), begin);
  EXPECT_TRUE(second.output().ends_with(end)) << second.output();
  EXPECT_TRUE(std::filesystem::exists("/dev/shm/" + name));
  EXPECT_TRUE(std::filesystem::exists("/dev/shm/" + name + "Response"));
}

TEST_F(ServerStartTest, RefusesABadName) {
  expectEnd({"--queue", "a/b", "--store", folder.path()}, 2,
            "orvaned: the queue name holds a character that is not allowed: use letters, digits "
            "and _.- (orvaned --help shows the usage)\n");
}

// Another server on the same store would take its streams for those of a lease.
TEST_F(ServerStartTest, RefusesANameThatLooksLikeThatOfALease) {
  expectEnd({"--queue", "orvane-20200101T000000-1_7", "--store", folder.path()}, 2,
            "orvaned: the queue name begins as those of leased queues do, orvane-TIME-PROCESS: "
            "take another one (orvaned --help shows the usage)\n");
}

TEST_F(ServerStartTest, RefusesALimitOnFilesUnderWhichNothingCanBeServed) {
  ServerProcess server({"--queue", name, "--store", folder.path()}, {.openFileLimit = 63});
  EXPECT_EQ(server.wait(), 2);
  EXPECT_EQ(server.output(),
            "orvaned: it may open only 63 files at a time, and needs 64 for a queue and a lease: "
            "raise the limit (ulimit -n, or the service's LimitNOFILE=)\n");
  EXPECT_EQ(namesIn(folder.path()), std::vector<std::string>{});
}

TEST_F(ServerStartTest, ServesAQueueAndALeaseWithAsManyFilesAsItAsksFor) {
  const TempFolder sockets;
  const std::string socket = sockets.path() + "/socket";
  ServerProcess server({"--queue", name, "--socket", socket, "--store", folder.path(), "--capture",
                        sockets.path() + "/capture"},
                       {.openFileLimit = 64});
  ASSERT_TRUE(server.isServing());
  LeasedProducer leased(socket);
  Producer fixed(name);
  const Record open{.type = 0, .seqNo = 0};
  const Record data{.type = 1, .seqNo = 2, .segmentDone = 0, .data = bytesOf("hello")};
  const Record own{.type = 9, .seqNo = 3, .data = bytesOf("own")};
  const Record close{.type = 3, .seqNo = 4, .segmentDone = 0};
  EXPECT_EQ(leased.queues.ask({open, data, own}).status, 0);
  EXPECT_EQ(fixed.ask({open, data, own}).status, 0);
  EXPECT_EQ(leased.queues.ask({close}).status, 0);
  EXPECT_EQ(fixed.ask({close}).status, 0);
  EXPECT_TRUE(leased.client.next().ends_with(" end=closed"));
}

TEST_F(ServerStartTest, RefusesAStoreThatIsNotThere) {
  const std::string store = folder.path() + "/none";
  expectEnd({"--queue", name, "--store", store}, 1,
            "TIME error 1 orvaned::main: cannot store into " + store +
                ": No such file or directory: --store needs a folder that exists and that the "
                "server can write to\n");
}

TEST_F(ServerStartTest, RefusesAStoreThatIsAFile) {
  const TempFolder other;
  const std::string store = other.path() + "/file";
  writeFile(store, "");
  expectEnd({"--queue", name, "--store", store}, 1,
            "TIME error 1 orvaned::main: cannot store into " + store +
                ": Not a directory: --store needs a folder that exists and that the server can "
                "write to\n");
}

TEST_F(ServerStartTest, RefusesAMessageSizeWithoutRoomForARecord) {
  expectEnd(
      {"--queue", name, "--store", folder.path(), "--message-size", "55"}, 2,
      "orvaned: --message-size 55 is too small: a record needs 56 and its data (orvaned --help "
      "shows the usage)\n");
}

TEST_F(ServerStartTest, RefusesAMessageSizeBeyondReason) {
  expectEnd(
      {"--queue", name, "--store", folder.path(), "--message-size", "1073741825"}, 2,
      "orvaned: --message-size 1073741825 is too large: use at most 1073741824 (orvaned --help "
      "shows the usage)\n");
}

TEST_F(ServerStartTest, RefusesMoreThanSharedMemoryHolds) {
  ServerProcess server({"--queue", name, "--store", folder.path(), "--messages", "4096",
                        "--message-size", "1073741824"});
  EXPECT_EQ(server.wait(), 1);
  const std::string start = "TIME error 1 orvaned::serve: queue " + name +
                            ": the queues need 4398047269600 bytes of /dev/shm, which has ";
  EXPECT_EQ(server.output().substr(0, start.size()), start);
  EXPECT_FALSE(std::filesystem::exists("/dev/shm/" + name));
  EXPECT_FALSE(std::filesystem::exists("/dev/shm/" + name + "Response"));
}

TEST_F(ServerStartTest, WrongUsageExitsWithTwoAndOneLine) {
  const std::string hint = " (orvaned --help shows the usage)\n";
  const auto refused = [&](const std::string& option, const std::string& value,
                           const std::string& reason) {
    expectEnd({"--queue", name, "--store", folder.path(), option, value}, 2,
              "orvaned: " + option + ": " + reason + hint);
  };
  expectEnd({}, 2, "orvaned: --store is required" + hint);
  expectEnd({"--store", folder.path()}, 2, "orvaned: --queue or --socket is required" + hint);
  expectEnd({"--queue", name}, 2, "orvaned: --store is required" + hint);
  refused("--messages", "0", "must be a number, 1 to 4096");
  refused("--messages", "4097", "must be a number, 1 to 4096");
  refused("--message-size", "-5", "must be a number of bytes, such as 512KiB");
  refused("--message-size", "large", "must be a number of bytes, such as 512KiB");
  refused("--shm-limit", "1MX", "must be a number of bytes, such as 512KiB");
  for (const char* size : {"18446744073709551616", "99999999999999999999", "16EiB", "-1", "", " ",
                           "1.5GiB", "0x10", "64MiB!", "+5", "5 5"}) {
    refused("--shm-limit", size, "must be a number of bytes, such as 512KiB");
    refused("--message-size", size, "must be a number of bytes, such as 512KiB");
  }
  for (const char* number : {"-1", "18446744073709551617", "4294967297", "many", "0x10", "1 "}) {
    refused("--messages", number, "must be a number, 1 to 4096");
    refused("--pairs-per-user", number, "must be a number, 1 to 4096");
    refused("--idle-limit", number, "must be a number, 0 to 86400");
  }
  refused("--log-level", "loud", "must be info, auth, warning or error");
  refused("--sync", "off", "must be always, segment or none");
  for (const char* method : {"", "gzip", "zstd:", "zstd:0", "zstd:20", "zstd:01", "zstd:+1",
                             "zstd:3 ", "zstd:3:1", "zstd3", "ZSTD", "3"}) {
    refused("--compress", method, "must be zstd or zstd:LEVEL, with a level from 1 to 19");
  }
  refused("--pairs-per-user", "0", "must be a number, 1 to 4096");
  refused("--idle-limit", "86401", "must be a number, 0 to 86400");
  expectEnd({"--queue", name, "--store", folder.path(), "more"}, 2,
            "orvaned: unexpected argument 'more'" + hint);
  expectEnd({"--stroe", folder.path()}, 2,
            "orvaned: unknown option --stroe; did you mean --store?" + hint);
  expectEnd({"--queue", name, "--store"}, 2, "orvaned: --store needs a value" + hint);
  expectEnd({"--queue", name, "--queue", name, "--store", folder.path()}, 2,
            "orvaned: --queue is given more than once" + hint);
  expectEnd({"--queue", name, "--store", folder.path(), "--trace=much"}, 2,
            "orvaned: --trace takes no value" + hint);
}

TEST_F(ServerStartTest, AModeIsOctalAndLetsTheOwnerReadAndWrite) {
  for (const char* mode : {"0400", "200", "1600", "678", "", "rw", "00600", "-600"}) {
    ServerProcess server({"--queue", name, "--store", folder.path(), "--mode", mode});
    EXPECT_EQ(server.wait(), 2) << mode;
    EXPECT_EQ(server.output(),
              "orvaned: --mode: must be octal, 0600 to 0777, and let the owner read and write "
              "(orvaned --help shows the usage)\n")
        << mode;
  }
}

TEST_F(ServerStartTest, HelpListsEveryOptionAndStatus) {
  ServerProcess server({"--help"});
  EXPECT_EQ(server.wait(), 0);
  for (const char* option :
       {"-h,--help ", "--version ", "--queue NAME ", "--socket PATH ", "--store FOLDER ",
        "--messages COUNT=8 ", "--message-size SIZE=1048968 ", "--mode MODE=0600 ",
        "--sync WHEN=segment ", "--compress METHOD ", "--pairs-per-user COUNT=16 ",
        "--shm-limit SIZE ", "--idle-limit SECONDS=0 ", "--log-level LEVEL=info ", "--trace ",
        "--capture FILE ", "--worker-user USER ", "--without PART "}) {
    EXPECT_NE(server.output().find("\n  " + std::string(option)), std::string::npos) << option;
  }
  for (const char* word :
       {"always   before", "1000  bad batch: ", "1001  out of order: ", "1002  invalid record: ",
        "1003  store failed: ", "1004  server ending: ", "1005  limit reached: ", "1006  no pair: ",
        "1007  bad request: ", "1008  worker died: ", "TIME KIND CODE COMPONENT::FUNCTION: MESSAGE",
        "Exit codes: "}) {
    EXPECT_NE(server.output().find(word), std::string::npos) << word;
  }
}

TEST_F(ServerStartTest, VersionNamesTheProgram) {
  expectEnd({"--version"}, 0, "orvaned 1.0.0\n");
}

// A full disk: what was asked for was not shown.
TEST_F(ServerStartTest, FailsWhenItCannotWriteWhatWasAskedFor) {
  for (const char* option : {"--help", "--version"}) {
    ServerProcess server({option}, {.standardOutput = "/dev/full"});
    EXPECT_EQ(server.wait(), 1) << option;
    EXPECT_EQ(server.output(), "orvaned: cannot write to standard output\n");
  }
}

TEST_F(ServerStartTest, TheNullStoreTakesStreamsAndKeepsNothing) {
  for (int start = 0; start < 2; ++start) {
    ServerProcess server({"--queue", name, "--store", "/dev/null", "--sync", "always"});
    ASSERT_TRUE(server.isServing());
    {
      orvane::ShmWriter writer("", name, 30, 30, false);
      const unsigned char data[100000] = {};
      writer.open();
      writer.writeSegment(data, 5);
      writer.endSegment();
      writer.writeSegment(data, sizeof data);
      writer.close();
    }
    EXPECT_TRUE(server.says("records=2 bytes=100005 segments=2 end=closed"));
    server.signal(SIGTERM);
    EXPECT_EQ(server.wait(), 0);
  }
  EXPECT_TRUE(std::filesystem::is_character_file("/dev/null"));
}

}  // namespace
