#include "worker/end_watch.hpp"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <stdexcept>

#include "support/child.hpp"

namespace {

using orvaned::Ending;
using orvaned::EndWatch;
using orvaned::LeaseConnection;
using std::chrono::microseconds;
using std::chrono::seconds;
using tool::Fd;

constexpr microseconds kNoPause{0};
constexpr microseconds kPause{1000};
constexpr microseconds kLongPause{999999};

// A connection whose other end is at hand.
struct Connection {
  Connection() : Connection(pairOfSockets()) {}

  Fd producer;
  LeaseConnection lease;

 private:
  struct Ends {
    int fd[2];
  };
  explicit Connection(Ends ends) : producer(ends.fd[0]), lease(Fd(ends.fd[1])) {}
  static Ends pairOfSockets() {
    Ends ends = {};
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.fd) != 0) {
      throw std::runtime_error("no socket pair");
    }
    return ends;
  }
};

// SIGTERM is blocked, as a worker has it.
class EndWatchTest : public testing::Test {
 protected:
  EndWatchTest() {
    sigemptyset(&termination);
    sigaddset(&termination, SIGTERM);
    sigprocmask(SIG_BLOCK, &termination, &before);
  }
  ~EndWatchTest() override {
    const timespec atOnce = {};
    sigtimedwait(&termination, nullptr, &atOnce);
    sigprocmask(SIG_SETMASK, &before, nullptr);
  }

  sigset_t termination = {};
  sigset_t before = {};
  Connection connection;
};

TEST_F(EndWatchTest, SeesNoEndWhileNothingHappens) {
  EXPECT_EQ(EndWatch(nullptr, seconds(0)).within(kPause), nullptr);
  EndWatch leased(&connection.lease, seconds(0));
  EXPECT_EQ(leased.within(kPause), nullptr);
  EXPECT_EQ(leased.within(kNoPause), nullptr);
}

TEST_F(EndWatchTest, WaitsAsLongAsItIsAsked) {
  EndWatch watch(&connection.lease, seconds(0));
  const auto begin = std::chrono::steady_clock::now();
  watch.within(microseconds(20000));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, microseconds(20000));
}

TEST_F(EndWatchTest, SeesThatTheServerIsStopped) {
  EndWatch watch(nullptr, seconds(0));
  raise(SIGTERM);
  const Ending* ending = watch.within(kLongPause);
  ASSERT_NE(ending, nullptr);
  EXPECT_EQ(ending->reason, "the server was stopped");
  EXPECT_EQ(ending->notice, "the server was stopped: send again what it did not acknowledge");
}

TEST_F(EndWatchTest, SeesThatTheProducerLeft) {
  EndWatch watch(&connection.lease, seconds(0));
  connection.producer.reset();
  const Ending* ending = watch.within(kLongPause);
  ASSERT_NE(ending, nullptr);
  EXPECT_EQ(ending->reason, "its producer died or left");
  EXPECT_EQ(ending->notice, "the lease has ended: take a new one");
}

TEST_F(EndWatchTest, SeesThatTheProducerHasNothingMoreToSay) {
  EndWatch watch(&connection.lease, seconds(0));
  ASSERT_EQ(shutdown(connection.producer.get(), SHUT_WR), 0);
  const Ending* ending = watch.within(kLongPause);
  ASSERT_NE(ending, nullptr);
  EXPECT_EQ(ending->reason, "its producer died or left");
}

TEST_F(EndWatchTest, DoesNotMindAProducerThatSendsPackets) {
  EndWatch watch(&connection.lease, seconds(0));
  ASSERT_EQ(send(connection.producer.get(), "chatter", 7, 0), 7);
  EXPECT_EQ(watch.within(kPause), nullptr);
}

TEST_F(EndWatchTest, SendsOnWhatTheProducerHadNoRoomFor) {
  constexpr int kPackets = 2000;
  EndWatch watch(&connection.lease, seconds(0));
  for (int i = 0; i < kPackets; ++i) {
    connection.lease.send(orvane::LeaseGranted{std::to_string(i)});
  }
  int received = 0;
  char packet[64] = {};
  for (int rounds = 0; rounds < kPackets && received < kPackets; ++rounds) {
    EXPECT_EQ(watch.within(kNoPause), nullptr);
    for (;;) {
      const ssize_t size = recv(connection.producer.get(), packet, sizeof(packet), MSG_DONTWAIT);
      if (size <= 0) {
        break;
      }
      EXPECT_EQ(std::string(packet, static_cast<std::size_t>(size)),
                "lease " + std::to_string(received++));
    }
    EXPECT_TRUE(rounds > 0 || received < kPackets) << "the socket held all of them";
  }
  EXPECT_EQ(received, kPackets);
}

TEST_F(EndWatchTest, CallsAUsedQueueIdleAndNotAnUnusedOne) {
  using Clock = std::chrono::steady_clock;
  EndWatch used(nullptr, seconds(1));
  EndWatch unused(nullptr, seconds(1));
  EndWatch unlimited(nullptr, seconds(0));
  EXPECT_EQ(used.within(kNoPause), nullptr);
  EXPECT_EQ(unlimited.within(kNoPause), nullptr);
  const auto begin = Clock::now();
  const Ending* ending = nullptr;
  while (ending == nullptr && Clock::now() - begin < seconds(30)) {
    EXPECT_EQ(unused.within(kPause), nullptr);
    EXPECT_EQ(unlimited.within(kPause), nullptr);
    ending = used.within(kPause);
  }
  EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(990));
  ASSERT_NE(ending, nullptr);
  EXPECT_EQ(ending->reason, "no record came for 1 s");
  EXPECT_EQ(ending->notice, "no record came for 1 s: attach to the queue anew");
  EXPECT_EQ(used.within(kNoPause), nullptr) << "a batch came";
}

using Request = LeaseConnection::Request;

TEST_F(EndWatchTest, ReadsARequestOnce) {
  EXPECT_EQ(connection.lease.readRequest(), Request::none);
  ASSERT_EQ(send(connection.producer.get(), "orvane 1 lease", 14, 0), 14);
  EXPECT_EQ(connection.lease.readRequest(), Request::lease);
  EXPECT_EQ(connection.lease.readRequest(), Request::none);
  ASSERT_EQ(send(connection.producer.get(), "orvane 1 leases", 15, 0), 15);
  EXPECT_EQ(connection.lease.readRequest(), Request::bad);
  connection.producer.reset();
  EXPECT_EQ(connection.lease.readRequest(), Request::end);
}

TEST_F(EndWatchTest, KnowsItsProducer) {
  EXPECT_EQ(connection.lease.producer().pid, getpid());
  EXPECT_EQ(connection.lease.producer().uid, geteuid());
  EXPECT_EQ(connection.lease.producer().gid, getegid());
}

TEST_F(EndWatchTest, ShortensAPacketToWhatAProducerReads) {
  connection.lease.send(orvane::LeaseRefused{1006, std::string(600, 'x')});
  char packet[1024] = {};
  EXPECT_EQ(recv(connection.producer.get(), packet, sizeof(packet), 0), 512);
}

// A path in a refusal may hold anything, and a producer may show it on a terminal.
TEST_F(EndWatchTest, SendsNoControlCharacters) {
  connection.lease.send(orvane::LeaseRefused{1006, "cannot store into a\nb\x1b\x7f\xc3\xa4 \t~"});
  char packet[1024] = {};
  EXPECT_GT(recv(connection.producer.get(), packet, sizeof(packet), 0), 0);
  EXPECT_STREQ(packet, "refused 1006 cannot store into a?b??\xc3\xa4 ?~");
}

}  // namespace
