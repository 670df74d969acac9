// Which process a lease is for, and what is kept for it.

#include "leases/lease_connection.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "interposed.hpp"
#include "leases/lease_requests.hpp"
#include "support/temp_folder.hpp"
#include "worker/end_watch.hpp"

namespace orvane::test {
namespace {

using orvaned::EndWatch;
using orvaned::LeaseConnection;
using orvaned::LeaseRequests;
using tool::Fd;
using Request = LeaseConnection::Request;

constexpr int kTimeout = 30000;
constexpr std::chrono::microseconds kLongPause{999999};

bool isReadable(int fd, int milliseconds) {
  pollfd file = {fd, POLLIN, 0};
  return poll(&file, 1, milliseconds) > 0;
}

struct Pipe {
  Pipe() {
    int ends[2] = {};
    if (pipe2(ends, O_CLOEXEC) != 0) {
      throw std::runtime_error("no pipe");
    }
    out = Fd(ends[0]);
    in = Fd(ends[1]);
  }
  Fd out, in;
};

// A producer that connects, asks for a lease, forks a child that holds the connection, and ends
// when it is told to. The child says when the connection has ended.
class ForkingProducer {
 public:
  explicit ForkingProducer(const std::string& path) {
    pid = fork();
    if (pid == 0) {
      act(path);
    }
    connected.in.reset();
    childSays.in.reset();
    char ignored = 0;
    if (read(connected.out.get(), &ignored, 1) != 1) {
      throw std::runtime_error("the producer cannot connect");
    }
  }
  ~ForkingProducer() { end(); }

  void end() {
    if (pid > 0) {
      mayEnd.in.reset();
      waitpid(pid, nullptr, 0);
      pid = -1;
    }
  }

  bool childSawTheEnd() const {
    char says = 0;
    return isReadable(childSays.out.get(), kTimeout) && read(childSays.out.get(), &says, 1) == 1;
  }

 private:
  [[noreturn]] void act(const std::string& path) const {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int client = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
    if (connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        send(client, "orvane 1 lease", 14, 0) != 14) {
      _exit(1);
    }
    char packet[512];
    if (fork() == 0) {
      close(mayEnd.in.get());
      while (recv(client, packet, sizeof packet, 0) > 0) {
      }
      _exit(write(childSays.in.get(), "x", 1) == 1 ? 0 : 1);
    }
    close(mayEnd.in.get());
    const bool told =
        write(connected.in.get(), "x", 1) == 1 && read(mayEnd.out.get(), packet, 1) == 0;
    _exit(told ? 0 : 1);
  }

  Pipe connected;
  Pipe mayEnd;
  Pipe childSays;
  pid_t pid;
};

std::string noLimit(const ucred&, std::size_t) {
  return "";
}

LeaseRequests::Totals noTotals(uid_t, const std::string&) {
  return {};
}

// On this kernel, and as on one without SO_PEERPIDFD.
class PinnedProducer : public testing::TestWithParam<int> {
 protected:
  PinnedProducer() { interposed::failPeerPidfd(GetParam()); }
  ~PinnedProducer() override { interposed::failPeerPidfd(0); }

  const TempFolder folder;
  const std::string path = folder.path() + "/socket";
};

INSTANTIATE_TEST_SUITE_P(Kernel, PinnedProducer, testing::Values(0, ENOPROTOOPT),
                         [](const auto& test) {
                           return test.param == 0 ? "AtHand" : "WithoutPeerPidfd";
                         });

TEST_P(PinnedProducer, IsTheOneThatConnected) {
  const orvaned::LeaseSocket listening(path, 0600);
  ForkingProducer producer(path);
  const LeaseConnection connection(listening.accept());
  EXPECT_FALSE(connection.cameTooLate());
  ASSERT_GE(connection.pidfd(), 0);
  EXPECT_FALSE(isReadable(connection.pidfd(), 0));
}

TEST_P(PinnedProducer, EndsItsLeaseThoughAForkedChildHoldsTheConnection) {
  const orvaned::LeaseSocket listening(path, 0600);
  ForkingProducer producer(path);
  LeaseConnection connection(listening.accept());
  EndWatch watch(&connection, std::chrono::seconds(0));
  EXPECT_EQ(watch.within(std::chrono::microseconds(1000)), nullptr);
  producer.end();
  EXPECT_TRUE(isReadable(connection.pidfd(), kTimeout));
  const orvaned::Ending* ending = watch.within(kLongPause);
  ASSERT_NE(ending, nullptr);
  EXPECT_EQ(ending->reason, "its producer died or left");
}

TEST_P(PinnedProducer, ThatEndedBeforeItWasAcceptedGetsNoLease) {
  LeaseRequests desk(path, 0600, 1);
  ForkingProducer producer(path);
  producer.end();
  EXPECT_TRUE(desk.serve(noLimit, noTotals).empty());
  EXPECT_TRUE(producer.childSawTheEnd());
  EXPECT_TRUE(desk.serve(noLimit, noTotals).empty());
}

TEST_P(PinnedProducer, GetsItsLeaseWhileItLives) {
  LeaseRequests desk(path, 0600, 1);
  ForkingProducer producer(path);
  EXPECT_EQ(desk.serve(noLimit, noTotals).size(), 1U);
  EXPECT_TRUE(producer.childSawTheEnd());  // the connection went with the desk's answer
}

// A connection whose other end is at hand.
class LeasePackets : public testing::Test {
 protected:
  LeasePackets() {
    int ends[2] = {};
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
      throw std::runtime_error("no socket pair");
    }
    producer = Fd(ends[0]);
    server = Fd(ends[1]);
  }
  ~LeasePackets() override { interposed::hideProducers(false); }

  // What the producer reads, until it would wait.
  std::vector<std::string> received() const {
    std::vector<std::string> packets;
    char packet[1024];
    for (;;) {
      const ssize_t size = recv(producer.get(), packet, sizeof packet, MSG_DONTWAIT);
      if (size <= 0) {
        return packets;
      }
      packets.emplace_back(packet, static_cast<std::size_t>(size));
    }
  }

  Fd producer;
  Fd server;
};

TEST_F(LeasePackets, OfAProducerInAnotherPidNamespaceEndWithTheConnection) {
  interposed::hideProducers(true);
  LeaseConnection connection(std::move(server));
  EXPECT_EQ(connection.producer().pid, 0);
  EXPECT_EQ(connection.producer().uid, geteuid());
  EXPECT_EQ(connection.pidfd(), -1);
  EXPECT_EQ(connection.executable(), "");
  EXPECT_FALSE(connection.cameTooLate());
  EndWatch watch(&connection, std::chrono::seconds(0));
  EXPECT_EQ(watch.within(std::chrono::microseconds(1000)), nullptr);
  producer.reset();
  const orvaned::Ending* ending = watch.within(kLongPause);
  ASSERT_NE(ending, nullptr);
  EXPECT_EQ(ending->reason, "its producer died or left");
}

TEST_F(LeasePackets, NameTheLabelAndNoneByDefault) {
  LeaseConnection connection(std::move(server));
  EXPECT_EQ(connection.label(), "");
  for (const auto& [packet, label] :
       {std::pair("orvane 1 lease label=a%20b", "a b"), std::pair("orvane 1 lease", "")}) {
    ASSERT_GT(send(producer.get(), packet, std::strlen(packet), 0), 0);
    EXPECT_EQ(connection.readRequest(), Request::lease);
    EXPECT_EQ(connection.label(), label);
  }
}

TEST_F(LeasePackets, ComeFromAnExecutableWithAName) {
  const LeaseConnection connection(std::move(server));
  EXPECT_EQ(connection.executable(),
            std::filesystem::read_symlink("/proc/self/exe").filename().string());
}

TEST_P(PinnedProducer, HasNoExecutableOnceItHasEnded) {
  orvaned::LeaseSocket socket(path, 0600);
  ForkingProducer producer(path);
  const LeaseConnection connection(socket.accept());
  EXPECT_NE(connection.executable(), "");
  producer.end();
  EXPECT_EQ(connection.executable(), "");
}

TEST_F(LeasePackets, WithoutAByteAreABadRequestAndNotTheEnd) {
  LeaseConnection connection(std::move(server));
  EXPECT_EQ(connection.readRequest(), Request::none);
  ASSERT_EQ(send(producer.get(), "", 0, 0), 0);
  EXPECT_EQ(connection.readRequest(), Request::bad);
  EXPECT_EQ(connection.readRequest(), Request::none);
  producer.reset();
  EXPECT_EQ(connection.readRequest(), Request::end);
}

TEST_F(LeasePackets, OfARingThatCannotBeHandedOverAreAnError) {
  const RingReader ring(kSmallestRing);
  LeaseConnection connection(std::move(server));
  while (connection.drained()) {
    connection.send(LeaseGranted{"q"});
  }
  try {
    connection.sendRing({"q", kSmallestRing}, ring);
    ADD_FAILURE() << "it was handed over";
  } catch (const std::system_error& e) {
    EXPECT_EQ(std::string(e.what()), "cannot hand the ring over: Resource temporarily unavailable");
  }
  producer.reset();
  EXPECT_NO_THROW(connection.sendRing({"q", kSmallestRing}, ring)) << "nobody is there";
}

TEST_F(LeasePackets, ThatNobodyReadsFillTheConnectionAndAreAllDelivered) {
  LeaseConnection connection(std::move(server));
  EXPECT_TRUE(connection.drained());
  std::size_t sent = 0;
  while (!connection.isFull()) {
    ASSERT_LT(sent, 100000U);
    connection.send(LeaseGranted{std::to_string(sent++)});
  }
  EXPECT_EQ(connection.waiting(), 4096U);
  EXPECT_GT(sent, 4096U);  // the socket holds some
  EXPECT_FALSE(connection.drained());
  connection.send(LeaseGranted{std::to_string(sent++)});
  EXPECT_EQ(connection.waiting(), 4097U);
  EXPECT_TRUE(connection.isFull());
  std::size_t got = 0;
  while (got < sent) {
    const auto packets = received();
    ASSERT_FALSE(packets.empty());
    for (const std::string& packet : packets) {
      EXPECT_EQ(packet, "lease " + std::to_string(got++));
    }
    connection.sendKept();
  }
  EXPECT_TRUE(connection.drained());
  EXPECT_FALSE(connection.isFull());
}

}  // namespace
}  // namespace orvane::test
