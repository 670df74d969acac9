// Receipts that a lease's producer does not read, and the end of a lease.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <csignal>
#include <cstring>

#include "shm/shm_names.hpp"
#include "shm/totals.hpp"
#include "support/lease_fixture.hpp"

namespace orvane::test {
namespace {

constexpr std::size_t kMostKept = 4096;

class UnreadReceipts : public LeaseTest {
 protected:
  // Streams without a segment, all in one message; returns how many.
  static std::size_t sendStreams(Producer& producer, std::size_t count) {
    BatchBytes streams;
    for (std::size_t i = 0; i < count; ++i) {
      streams.records({kOpen, {.type = 3, .seqNo = 2}});
    }
    producer.send(streams.bytes());
    return count;
  }

  static std::uint64_t statOf(const std::string& queue, std::size_t offset) {
    const std::string totals = readFile(tool::totalsPathOf(queue));
    std::uint64_t number = 0;
    std::memcpy(&number, totals.data() + offset, sizeof number);
    return number;
  }
};

TEST_F(UnreadReceipts, StopTheirLeaseUntilSomeAreReadAndNoneIsLost) {
  start();
  LeasedProducer producer(socket);
  std::size_t sent = 0;
  for (int batch = 0; batch < 8; ++batch) {
    sent += sendStreams(producer.queues, 1000);
  }
  ASSERT_TRUE(server->says("queue " + producer.name +
                           ": no batch is taken until the producer "
                           "reads some of its "))
      << server->output();
  const std::uint64_t unread = statOf(producer.name, 192);
  EXPECT_GE(unread, kMostKept);
  EXPECT_LT(unread, kMostKept + 1000);
  for (std::size_t i = 0; i < sent; ++i) {
    ASSERT_TRUE(producer.client.next().starts_with("receipt stream=")) << i;
  }
  EXPECT_TRUE(eventually([&] { return statOf(producer.name, 192) == 0; }));
}

TEST_F(UnreadReceipts, ReachAProducerThatReadsThemWhenTheServerEnds) {
  start();
  LeasedProducer producer(socket);
  const std::size_t sent = sendStreams(producer.queues, 3000);
  ASSERT_TRUE(eventually([&] { return statOf(producer.name, 96) == sent; }));
  server->signal(SIGTERM);
  for (std::size_t i = 0; i < sent; ++i) {
    ASSERT_TRUE(producer.client.next().starts_with("receipt stream=")) << i;
  }
  EXPECT_EQ(producer.client.next(), kEnd);
  EXPECT_EQ(server->wait(), 0);
}

TEST_F(UnreadReceipts, DoNotKeepTheServerFromEnding) {
  start();
  LeasedProducer producer(socket);
  const std::size_t sent = sendStreams(producer.queues, 3000);
  ASSERT_TRUE(eventually([&] { return statOf(producer.name, 96) == sent; }));
  server->signal(SIGTERM);
  EXPECT_EQ(server->wait(), 0);
}

// Whoever may use a queue may forge what its header says.
class ForgedCount : public LeaseTest {
 protected:
  // Overwrites the count of the messages that wait, which changes with the first of them.
  static void forgeCount(const std::string& queue, Producer& producer, pid_t worker) {
    const int file = open(("/dev/shm/" + queue).c_str(), O_RDWR | O_CLOEXEC);
    void* memory = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    close(file);
    auto* words = static_cast<volatile std::uint64_t*>(memory);
    stop(worker);
    std::vector<std::uint64_t> before(words, words + 64);
    producer.send({kOpen});
    for (std::size_t i = 0; i < before.size(); ++i) {
      if (before[i] == 0 && words[i] == 1) {
        words[i] = std::uint64_t{1} << 40;
      }
    }
    munmap(memory, 4096);
    kill(worker, SIGCONT);
  }
};

TEST_F(ForgedCount, DoesNotKeepTheWorkerOfAClientThatLeft) {
  start();
  LeasedProducer producer(socket);
  LeasedProducer other(socket);
  forgeCount(producer.name, producer.queues, server->workerOf(producer.name));
  producer.client.close();
  EXPECT_TRUE(eventually([&] { return sharedMemoryOf(producer.name).empty(); }))
      << server->output();
  EXPECT_EQ(other.queues.ask({kOpen, kHello, kClose}).status, 0);
}

}  // namespace
}  // namespace orvane::test
