// The lines that the real server writes, and that no text from outside is taken for a format.

#include <gtest/gtest.h>

#include <csignal>
#include <ctime>
#include <filesystem>

#include "support/queue_pair.hpp"
#include "support/served.hpp"
#include "support/server_process.hpp"
#include "support/temp_folder.hpp"

namespace {

using orvane::test::attach;
using orvane::test::BatchBytes;
using orvane::test::Bytes;
using orvane::test::bytesOf;
using orvane::test::namesIn;
using orvane::test::QueueName;
using orvane::test::ServerProcess;
using orvane::test::TempFolder;
using orvane::test::uniqueQueueName;

constexpr std::size_t kAnswerLength = 127;  // of the text, at most

class ServerLogTest : public testing::Test {
 protected:
  // The whole output of a server that starts, takes these messages and is stopped.
  std::string logOf(const std::vector<std::string>& options, const std::vector<Bytes>& messages) {
    std::vector<std::string> arguments = {"--queue", name, "--store", store};
    arguments.insert(arguments.end(), options.begin(), options.end());
    ServerProcess server(arguments);
    const auto queue = attach(name);
    for (const Bytes& message : messages) {
      queue->send(message.data(), message.size(), 1);
    }
    server.signal(SIGTERM);
    EXPECT_EQ(server.wait(), 0);
    return server.output();
  }
  // Of a server that ends by itself.
  static std::string refusalOf(const std::string& queue, const std::string& storeFolder) {
    ServerProcess server({"--queue", queue, "--store", storeFolder});
    EXPECT_EQ(server.wait(), 1);
    return server.output();
  }
  std::string serving(const std::string& sizes = "8 messages of 1048968 bytes") const {
    return "TIME info 0 orvaned::serve: serving queue " + name + " (" + sizes + "), storing into " +
           store + "\n";
  }
  std::string stopped() const {
    return "TIME info 0 orvaned::serve: stopped serving queue " + name +
           ": the server was stopped\n";
  }
  // The one stored stream's id.
  std::string streamId() const { return namesIn(store).at(0).substr(name.size() + 1); }

  TempFolder folder;
  std::string store = folder.path();
  const QueueName nameGuard{uniqueQueueName()};
  const QueueName responseGuard{nameGuard.text() + "Response"};
  const std::string& name = nameGuard.text();
  const Bytes outside =
      BatchBytes().records({{.type = 1, .seqNo = 2, .data = bytesOf("data")}}).bytes();
  const Bytes stream = BatchBytes()
                           .records({{.type = 0},
                                     {.type = 1, .seqNo = 2, .data = bytesOf("data")},
                                     {.type = 3, .seqNo = 3}})
                           .bytes();
};

TEST_F(ServerLogTest, TellsOfItsStartItsStreamsAndItsEnd) {
  const std::string log = logOf({}, {stream});
  const std::string queue = "queue " + name + ": ";
  EXPECT_EQ(log, serving() + "TIME info 0 worker::open: " + queue + "stream " + streamId() +
                     " begins\n"
                     "TIME info 0 worker::concludeStream: " +
                     queue + "receipt stream=" + streamId() +
                     " records=1 bytes=4 segments=1 end=closed\n" + stopped());
}

TEST_F(ServerLogTest, TraceTellsOfEachBatchAndEachAnswerToo) {
  const std::string log = logOf({"--trace", "--log-level", "error"}, {stream, bytesOf("rubbish!")});
  const std::string queue = "queue " + name + ": ";
  const std::string refusal =
      "Could not deserialize ShmBatch::MetaData from buffer because the magic value 1920295522 is "
      "corrupt (expected=4278251025)";
  EXPECT_EQ(log, "TIME trace 0 worker::takeBatch: " + queue +
                     "a batch of 3 records, 156 bytes\n"
                     "TIME trace 0 worker::runOnce: " +
                     queue + "answered 0 \"receipt stream=" + streamId() +
                     " records=1 bytes=4 segments=1 end=closed\"\n"
                     "TIME error 1000 worker::takeBatch: " +
                     queue + refusal +
                     "\n"
                     "TIME trace 0 worker::runOnce: " +
                     queue + "answered 1000 \"" + refusal + "\"\n");
}

TEST_F(ServerLogTest, LevelWarningKeepsTheWarning) {
  EXPECT_EQ(logOf({"--log-level", "warning", "--message-size", "1000"}, {stream}),
            "TIME warning 0 orvaned::serve: --message-size 1000 is less than 131128: a record of "
            "the largest size cannot pass\n");
}

TEST_F(ServerLogTest, LevelErrorDropsTheWarning) {
  EXPECT_EQ(logOf({"--log-level", "error", "--message-size", "1000"}, {stream}), "");
}

TEST_F(ServerLogTest, TheTimeIsNow) {
  ServerProcess server({"--queue", name, "--store", store});
  const std::time_t before = std::time(nullptr);
  ASSERT_TRUE(server.isServing());
  const std::time_t after = std::time(nullptr);
  std::tm utc = {};
  ASSERT_NE(strptime(server.rawOutput().c_str(), "%Y-%m-%dT%H:%M:%S", &utc), nullptr);
  const std::time_t written = timegm(&utc);
  EXPECT_LE(before - 1, written);  // the system's own clock for whole seconds lags a little
  EXPECT_LE(written, after + 1);
}

TEST_F(ServerLogTest, AQueuesNameIsNotTakenForAFormat) {
  ServerProcess server({"--queue", "%n%s", "--store", store});
  EXPECT_EQ(server.wait(), 2);
  EXPECT_EQ(
      server.output(),
      "orvaned: the queue name holds a character that is not allowed: use letters, digits and "
      "_.- (orvaned --help shows the usage)\n");
}

TEST_F(ServerLogTest, AMissingStoresPathIsNotTakenForAFormat) {
  EXPECT_EQ(refusalOf(name, store + "/%n%s%n%s"),
            "TIME error 1 orvaned::main: cannot store into " + store +
                "/%n%s%n%s: No such file or directory: --store needs a folder that exists and that "
                "the server can write to\n");
}

TEST_F(ServerLogTest, AStoresPathIsNotTakenForAFormat) {
  store += "/%n%s";
  std::filesystem::create_directory(store);
  EXPECT_EQ(logOf({}, {}), serving() + stopped());
}

TEST_F(ServerLogTest, AnErrorsTextIsNotTakenForAFormat) {
  store += "/%n%s";
  std::filesystem::create_directory(store);
  std::filesystem::create_directory(store + "/" + name + "-outside-records");
  const std::string refusal =
      "Is a directory: cannot create " + store + "/" + name + "-outside-records";
  const std::string log = logOf({"--trace", "--log-level", "error"}, {outside});
  const std::string queue = "queue " + name + ": ";
  EXPECT_EQ(log, "TIME trace 0 worker::takeBatch: " + queue +
                     "a batch of 1 records, 60 bytes\n"
                     "TIME error 1003 worker::flush: " +
                     queue + refusal +
                     "\n"
                     "TIME trace 0 worker::runOnce: " +
                     queue + "answered 1003 \"" + refusal.substr(0, kAnswerLength) + "\"\n");
}

TEST_F(ServerLogTest, AFilesNameIsNotTakenForAFormat) {
  store += "/%n%s";
  std::filesystem::create_directory(store);
  const std::string file = store + "/" + name + "-outside-records";
  std::filesystem::create_symlink("/dev/full", file);
  EXPECT_EQ(logOf({"--log-level", "error"}, {outside}),
            "TIME error 1003 worker::flush: queue " + name +
                ": Too many levels of symbolic links: cannot create " + file + "\n");
}

TEST_F(ServerLogTest, AProducersBytesAreNotTakenForAFormat) {
  EXPECT_EQ(logOf({"--log-level", "error"}, {bytesOf("%n%s%n%s")}),
            "TIME error 1000 worker::takeBatch: queue " + name +
                ": Could not deserialize ShmBatch::MetaData from buffer because the magic value "
                "627975539 is corrupt (expected=4278251025)\n");
}

}  // namespace
