// A stream's name: its start and process, and a number that the process gives only once.

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <filesystem>
#include <orvane/orvane.hpp>

#include "shm/utc.hpp"
#include "store/store.hpp"
#include "support/queue_pair.hpp"
#include "support/server_process.hpp"
#include "support/temp_folder.hpp"
#include "support/wire.hpp"

namespace {

using orvane::UniqueIdGenerator;
using orvane::test::attach;
using orvane::test::BatchBytes;
using orvane::test::Bytes;
using orvane::test::namesIn;
using orvane::test::QueueName;
using orvane::test::ServerProcess;
using orvane::test::TempFolder;
using orvane::test::uniqueQueueName;

// The parts of an id, which is PREFIX_NUMBER.
std::string prefixOf(const std::string& id) {
  return id.substr(0, id.find('_'));
}
unsigned long numberOf(const std::string& id) {
  return std::stoul(id.substr(id.find('_') + 1));
}

class StreamIdTest : public testing::Test {
 protected:
  TempFolder folder;
  orvaned::Store store{folder.path(), "q", orvaned::Sync::none};
};

TEST_F(StreamIdTest, IsDrawnFromTheProcessesGenerator) {
  const unsigned long drawn = numberOf(UniqueIdGenerator::getInstance().generateId("test"));
  EXPECT_EQ(numberOf(store.createStream()->stream()), drawn + 1);
  EXPECT_EQ(numberOf(UniqueIdGenerator::getInstance().generateId("test")), drawn + 2);
}

TEST_F(StreamIdTest, IsNeverThatOfAnotherStoreInTheProcess) {
  orvaned::Store other(folder.path(), "r", orvaned::Sync::none);
  const unsigned long first = numberOf(store.createStream()->stream());
  EXPECT_EQ(numberOf(other.createStream()->stream()), first + 1);
  EXPECT_EQ(numberOf(store.createStream()->stream()), first + 2);
}

TEST_F(StreamIdTest, BeginsWithItsStartAndItsProcess) {
  const std::time_t before = std::time(nullptr);
  const std::string prefix = prefixOf(store.createStream()->stream());
  const std::time_t after = std::time(nullptr);
  std::tm utc = {};
  const char* process = strptime(prefix.c_str(), "%Y%m%dT%H%M%S", &utc);
  ASSERT_NE(process, nullptr) << prefix;
  EXPECT_EQ(process, "-" + std::to_string(getpid()));
  EXPECT_LE(before, timegm(&utc));
  EXPECT_LE(timegm(&utc), after);
}

TEST_F(StreamIdTest, PassesOverAFolderThatExists) {
  const unsigned long number = numberOf(store.createStream()->stream());
  // Whenever the next stream begins in this minute.
  for (int second = 0; second < 60; ++second) {
    const std::string time = tool::utcTextForNames(tool::utcNow() + std::chrono::seconds(second));
    std::filesystem::create_directory(folder.path() + "/q-" + time + "-" +
                                      std::to_string(getpid()) + "_" + std::to_string(number + 1));
  }
  EXPECT_EQ(numberOf(store.createStream()->stream()), number + 2);
}

// Opens and closes a stream at its own server.
void runOnce(const std::string& queue, const std::string& store) {
  ServerProcess server({"--queue", queue, "--store", store});
  const auto send = attach(queue);
  const Bytes stream = BatchBytes().records({{.type = 0}, {.type = 3, .seqNo = 2}}).bytes();
  send->send(stream.data(), stream.size(), 1);
  server.signal(SIGTERM);
  EXPECT_EQ(server.wait(), 0);
}

TEST(StreamIdOfARun, DiffersFromThatOfTheNextRun) {
  const TempFolder folder;
  const QueueName name(uniqueQueueName());
  const QueueName response(name.text() + "Response");
  runOnce(name.text(), folder.path());
  runOnce(name.text(), folder.path());
  const auto stored = namesIn(folder.path());
  ASSERT_EQ(stored.size(), 2U);
  EXPECT_TRUE(stored[0].ends_with("_0")) << stored[0];
  EXPECT_TRUE(stored[1].ends_with("_0")) << stored[1];
}

}  // namespace
