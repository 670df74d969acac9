// A producer's lease while all goes well: its pair, its streams, and the receipts for them.

#include <sys/stat.h>

#include <filesystem>
#include <orvane/orvane.hpp>
#include <regex>
#include <set>

#include "support/lease_fixture.hpp"

namespace orvane::test {
namespace {

namespace fs = std::filesystem;

mode_t modeOf(const std::string& path) {
  struct stat status = {};
  stat(path.c_str(), &status);
  return status.st_mode & 07777;
}

class LeasePairTest : public LeaseTest {};

TEST_F(LeasePairTest, HasANameOfTheServersOwn) {
  start();
  const LeaseClient client(socket);
  client.send("orvane 1 lease");
  const std::string answer = client.next();
  EXPECT_TRUE(
      std::regex_match(answer, std::regex("lease orvane-[0-9]{8}T[0-9]{6}-" +
                                          std::to_string(server->process()) + "_[0-9a-f]{16}")))
      << answer;
}

TEST_F(LeasePairTest, NeverHasTheNameOfAnother) {
  std::set<std::string> names;
  for (int run = 0; run < 2; ++run) {
    start();
    for (int lease = 0; lease < 3; ++lease) {
      names.insert(LeaseClient(socket).ask());
    }
  }
  EXPECT_EQ(names.size(), 6U);
  EXPECT_TRUE(names.begin()->starts_with("orvane-")) << *names.begin();
}

TEST_F(LeasePairTest, IsThereWhenItsNameIsToldAndOnlyItsUsers) {
  start({"--mode", "0666"});
  const LeaseClient client(socket);
  const std::string name = client.ask();
  EXPECT_EQ(sharedMemoryOf(name), wholePair(name));
  EXPECT_EQ(modeOf("/dev/shm/" + name), 0600U);
  EXPECT_EQ(modeOf("/dev/shm/" + name + "Response"), 0600U);
  EXPECT_EQ(modeOf(socket), 0666U);
}

TEST_F(LeasePairTest, SaysWhoGotIt) {
  start();
  const LeaseClient client(socket);
  const std::string name = client.ask();
  ASSERT_TRUE(server->isServing());
  EXPECT_EQ(server->output().substr(server->output().find("TIME info 0 orvaned::serve: serving l")),
            "TIME info 0 orvaned::serve: serving leases at " + socket + ", storing into " +
                store.path() + "\nTIME info 0 orvaned::serve: serving queue " + name +
                " for user " + std::to_string(geteuid()) + ", process " + std::to_string(getpid()) +
                " (8 messages of 1048968 bytes), storing into " + store.path() + "\n");
}

TEST_F(LeasePairTest, TakesAWritersStreamAndSendsItsReceipt) {
  start();
  const LeaseClient client(socket);
  const std::string name = client.ask();
  ShmWriter writer("stream", name, 20, 5, false);
  writer.open();
  writer.writeSegment(reinterpret_cast<const unsigned char*>("hello"), 5);
  writer.endSegment();
  writer.close();
  const std::string receipt = client.next();
  EXPECT_EQ(receipt,
            "receipt stream=" + streamOf(name) + " records=1 bytes=5 segments=1 end=closed");
  EXPECT_EQ(readFile(folderOf(name) + "/segment-000000"), "hello");
  EXPECT_NE(readFile(folderOf(name) + "/manifest").find("\n" + receipt + "\n"), std::string::npos);
}

TEST_F(LeasePairTest, AStopIsReceiptedAsSuch) {
  start();
  LeasedProducer producer(socket);
  EXPECT_EQ(producer.queues.ask({kOpen, kHello, kStop}).status, 0);
  EXPECT_EQ(producer.client.next(), "receipt stream=" + streamOf(producer.name) +
                                        " records=1 bytes=5 segments=1 end=stopped");
}

TEST_F(LeasePairTest, AStreamThatAnotherOneCutsOffIsReceiptedAsSuch) {
  start();
  LeasedProducer producer(socket);
  EXPECT_EQ(producer.queues.ask({kOpen, kHello}), (Answer{0, ""}));
  const std::string first = streamOf(producer.name);
  EXPECT_EQ(producer.queues.ask({kOpen}), (Answer{0, ""}));
  EXPECT_EQ(producer.client.next(),
            "receipt stream=" + first + " records=1 bytes=5 segments=1 end=cut-off");
  EXPECT_EQ(producer.queues.ask({kClose}).status, 0);
  const std::string second = producer.client.next();
  EXPECT_TRUE(second.ends_with(" records=0 bytes=0 segments=0 end=closed")) << second;
  EXPECT_EQ(second.find(first), std::string::npos) << second;
}

TEST_F(LeasePairTest, ABrokenStreamIsToldOnce) {
  start();
  LeasedProducer producer(socket);
  Record repeated = kHello;
  EXPECT_EQ(producer.queues.ask({kOpen, kHello}), (Answer{0, ""}));
  const Answer error{1001, "sequence number out of order: expected above 2, got 2"};
  EXPECT_EQ(producer.queues.ask({repeated}), error);
  EXPECT_EQ(producer.client.next(),
            "failed 1001 sequence number out of order: expected above 2, got 2");
  EXPECT_EQ(producer.queues.ask({kHello}), error);
  EXPECT_EQ(producer.queues.ask({kClose}), error);
  const std::string broken = streamOf(producer.name);
  EXPECT_EQ(producer.queues.ask({kOpen, kClose}).status, 0);
  const std::string next = producer.client.next();
  EXPECT_TRUE(next.starts_with("receipt stream=")) << next;
  EXPECT_EQ(next.find(broken), std::string::npos) << next;
  EXPECT_TRUE(next.ends_with(" records=0 bytes=0 segments=0 end=closed")) << next;
}

TEST_F(LeasePairTest, AStreamThatCannotBeginIsToldOnce) {
  start();
  LeasedProducer producer(socket);
  fs::remove(store.path());
  const std::string reason =
      "No such file or directory: cannot create " + store.path() + "/" + socketName() + "-";
  EXPECT_EQ(producer.queues.ask({kOpen, kHello}).status, 1003);
  const std::string told = producer.client.next();
  EXPECT_TRUE(told.starts_with("failed 1003 " + reason)) << told;
  EXPECT_EQ(producer.queues.ask({kClose}).status, 1003);
  fs::create_directory(store.path());
  EXPECT_EQ(producer.queues.ask({kOpen, kClose}).status, 0);
  EXPECT_EQ(producer.client.next(), "receipt stream=" + streamOf(producer.name) +
                                        " records=0 bytes=0 segments=0 end=closed");
}

// More than the socket's buffer holds, which is why the server keeps them.
TEST_F(LeasePairTest, ReceiptsThatAreReadLateAllComeInTheirOrder) {
  constexpr int kStreams = 600;
  start();
  LeasedProducer producer(socket);
  for (int i = 0; i < kStreams; ++i) {
    producer.queues.send({kOpen, kClose});
    ASSERT_TRUE(server->says(" end=closed\n", i + 1));
  }
  std::size_t last = 0;
  for (int i = 0; i < kStreams; ++i) {
    const std::string receipt = producer.client.next();
    std::smatch parts;
    ASSERT_TRUE(std::regex_match(receipt, parts,
                                 std::regex("receipt stream=.*_([0-9]+) records=0 bytes=0 "
                                            "segments=0 end=closed")))
        << receipt;
    const std::size_t number = std::stoul(parts[1]);
    EXPECT_EQ(number, i == 0 ? number : last + 1);
    last = number;
  }
  EXPECT_EQ(namesIn(store.path()).size(), static_cast<std::size_t>(kStreams));
}

}  // namespace
}  // namespace orvane::test
