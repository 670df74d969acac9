// How a lease ends: by its producer, however that one ends, or by the server.

#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "support/child.hpp"
#include "support/lease_fixture.hpp"

namespace orvane::test {
namespace {

namespace fs = std::filesystem;

constexpr char kLeaseOver[] = "the lease has ended: take a new one";
constexpr char kProducerLeft[] = "end=cut-off\nreason=its producer died or left\n";

class LeaseEndTest : public LeaseTest {
 protected:
  LeaseEndTest() { start(); }

  // The server's own lock file in /dev/shm, for a queue that it leased.
  static std::string lockOf(const std::string& queue) {
    return "/dev/shm/." + queue.substr(0, queue.rfind('_')) + ".lock";
  }
};

TEST_F(LeaseEndTest, WhatIsQueuedIsStoredWhenTheProducerLeaves) {
  LeasedProducer producer(socket);
  EXPECT_EQ(producer.queues.ask({kOpen}), (Answer{0, ""}));
  const pid_t worker = server->workerOf(producer.name);
  stop(worker);
  producer.queues.send({kHello, kEndOfSegment});
  producer.queues.send({{.type = 1, .seqNo = 6, .segmentNo = 1, .data = bytesOf("more")}});
  producer.client.close();
  kill(worker, SIGCONT);
  EXPECT_TRUE(eventually([&] { return sharedMemoryOf(producer.name).empty(); }));
  EXPECT_EQ(endingOf(producer.name), kProducerLeft);
  EXPECT_EQ(readFile(folderOf(producer.name) + "/segment-000000"), "hello");
  EXPECT_EQ(readFile(folderOf(producer.name) + "/segment-000001.part"), "more");
  EXPECT_TRUE(server->says(" info 0 orvaned::serve: stopped serving queue " + producer.name +
                           ": its producer died or left\n"));
}

TEST_F(LeaseEndTest, WhoeverStillUsesThePairIsTold) {
  LeasedProducer producer(socket);
  producer.client.close();
  EXPECT_EQ(producer.queues.answer(), (Answer{1004, kLeaseOver}));
  EXPECT_TRUE(eventually([&] { return sharedMemoryOf(producer.name).empty(); }));
}

TEST_F(LeaseEndTest, AStreamThatHadEndedKeepsItsEnding) {
  LeasedProducer producer(socket);
  producer.queues.send({kOpen, kHello, kClose});
  producer.client.close();
  EXPECT_TRUE(eventually([&] { return sharedMemoryOf(producer.name).empty(); }));
  EXPECT_EQ(endingOf(producer.name), "end=closed\nreason=\n");
}

// A producer that is killed in mid-stream, while a process that it forked keeps its connection.
TEST_F(LeaseEndTest, AKilledProducerIsGoneThoughItsForkedChildHoldsTheConnection) {
  int name[2] = {};
  int hold[2] = {};
  ASSERT_EQ(pipe(name), 0);
  ASSERT_EQ(pipe(hold), 0);
  Child child([&] {
    LeasedProducer producer(socket);
    producer.queues.ask({kOpen, kHello});
    if (fork() == 0) {
      char byte = 0;
      close(hold[1]);
      _exit(read(hold[0], &byte, 1) == 0 ? 0 : 1);  // when the test ends
    }
    if (write(name[1], producer.name.data(), producer.name.size()) > 0) {
      pause();
    }
  });
  char text[256] = {};
  ASSERT_GT(read(name[0], text, sizeof(text) - 1), 0);
  const std::string queue = text;
  EXPECT_EQ(sharedMemoryOf(queue), wholePair(queue));
  child.signal(SIGKILL);
  EXPECT_EQ(child.nextChange(), "signal 9");
  EXPECT_TRUE(eventually([&] { return sharedMemoryOf(queue).empty(); }));
  EXPECT_EQ(endingOf(queue), kProducerLeft);
  EXPECT_EQ(readFile(folderOf(queue) + "/segment-000000.part"), "hello");
  for (const int end : {name[0], name[1], hold[0], hold[1]}) {
    close(end);
  }
}

TEST_F(LeaseEndTest, AnotherLeaseGoesOn) {
  LeasedProducer other(socket);
  EXPECT_EQ(other.queues.ask({kOpen, kHello}), (Answer{0, ""}));
  LeasedProducer producer(socket);
  producer.client.close();
  ASSERT_TRUE(eventually([&] { return sharedMemoryOf(producer.name).empty(); }));
  EXPECT_EQ(other.queues.ask({kClose}).status, 0);
  EXPECT_EQ(other.client.next(),
            "receipt stream=" + streamOf(other.name) + " records=1 bytes=5 segments=1 end=closed");
}

TEST_F(LeaseEndTest, AStoppedServerTellsItsProducersAndLeavesNothing) {
  LeasedProducer producer(socket);
  const LeaseClient silent(socket);
  EXPECT_EQ(producer.queues.ask({kOpen, kHello}), (Answer{0, ""}));
  EXPECT_TRUE(fs::exists(lockOf(producer.name)));
  server->signal(SIGTERM);
  EXPECT_EQ(producer.client.next(), "failed 1004 the server was stopped");
  EXPECT_EQ(producer.client.next(), kEnd);
  EXPECT_EQ(silent.next(), kEnd);
  EXPECT_EQ(producer.queues.answer(), (Answer{1004, kStoppedNotice}));
  EXPECT_EQ(server->wait(), 0);
  EXPECT_EQ(endingOf(producer.name), "end=cut-off\nreason=the server was stopped\n");
  EXPECT_EQ(namesIn(folder.path()), Words{});
  EXPECT_EQ(sharedMemoryOf(producer.name), Words{});
  EXPECT_FALSE(fs::exists(lockOf(producer.name)));
}

// One's worker is started while the other's connection is with the server.
TEST_F(LeaseEndTest, ProducersThatAskAtOnceDoNotHoldEachOthersConnections) {
  stop(server->process());
  const LeaseClient first(socket);
  const LeaseClient second(socket);
  first.send("orvane 1 lease");
  second.send("orvane 1 lease");
  server->signal(SIGCONT);
  for (const LeaseClient* client : {&second, &first}) {
    const std::string answer = client->next();
    ASSERT_TRUE(answer.starts_with("lease ")) << answer;
    kill(server->workerOf(answer.substr(6)), SIGKILL);
    EXPECT_EQ(client->next(), "failed 1008 what served the queue died");
    EXPECT_EQ(client->next(), kEnd);
  }
}

TEST_F(LeaseEndTest, AKilledWorkersProducerIsToldAndItsStreamIsFinished) {
  LeasedProducer producer(socket);
  LeasedProducer other(socket);
  EXPECT_EQ(producer.queues.ask({kOpen, kHello, kEndOfSegment}), (Answer{0, ""}));
  EXPECT_EQ(other.queues.ask({kOpen, kHello}), (Answer{0, ""}));
  kill(server->workerOf(producer.name), SIGKILL);
  EXPECT_EQ(producer.client.next(), "failed 1008 what served the queue died");
  EXPECT_EQ(producer.client.next(), kEnd);
  EXPECT_EQ(producer.queues.answer(),
            (Answer{1008, "what served the queue died: send again what it did not acknowledge"}));
  EXPECT_TRUE(eventually([&] { return sharedMemoryOf(producer.name).empty(); }));
  EXPECT_EQ(endingOf(producer.name), "end=cut-off\nreason=its worker died\n");
  EXPECT_EQ(readFile(folderOf(producer.name) + "/segment-000000"), "hello");
  EXPECT_EQ(other.queues.ask({kClose}).status, 0);
  EXPECT_EQ(other.client.next(),
            "receipt stream=" + streamOf(other.name) + " records=1 bytes=5 segments=1 end=closed");
}

}  // namespace
}  // namespace orvane::test
