#include "orvane/lease.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <iterator>

#include "interruptions.hpp"
#include "support/fake_server.hpp"
#include "support/throws.hpp"
#include "support/waiting_thread.hpp"
#include "texts.hpp"

namespace orvane::test {
namespace {

using Names = std::vector<std::string>;

// Without the one that lists them.
Names openDescriptors() {
  Names names = namesIn("/proc/self/fd");
  std::erase_if(names, [](const auto& name) { return fcntl(std::stoi(name), F_GETFD) < 0; });
  return names;
}

// A failed attempt, which must leave no descriptor behind.
testing::AssertionResult refuses(
    ox_status_t status, const std::string& message, const std::string& path,
    unsigned int timeout = kLong, const std::function<void()>& endServer = [] {}) {
  const Names before = openDescriptors();
  testing::AssertionResult result = throwsErrno(status, message, [&] { Lease(path, timeout); });
  endServer();
  return openDescriptors() == before ? result
                                     : testing::AssertionFailure() << "a descriptor was left open";
}

testing::AssertionResult refuses(ox_status_t status, const std::string& message, FakeServer& server,
                                 unsigned int timeout = kLong) {
  return refuses(status, message, server.path(), timeout, [&server] { server.end(); });
}

// Binds a socket at `path`, which nobody listens at unless `type` says so.
class BoundSocket {
 public:
  BoundSocket(const std::string& path, int type) : fd(socket(AF_UNIX, type | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  }
  ~BoundSocket() { close(fd); }
  BoundSocket(const BoundSocket&) = delete;
  BoundSocket& operator=(const BoundSocket&) = delete;

  void listen() const { EXPECT_EQ(::listen(fd, 1), 0); }

 private:
  int fd;
};

TEST(LeaseTaking, AsksInVersionOne) {
  FakeServer server;
  server.serve({.says = {"lease orders-1_0"}});

  const Lease lease(server.path(), kLong);

  EXPECT_EQ(server.request(), "orvane 1 lease");
}

TEST(LeaseTaking, GivesTheNameOfTheQueue) {
  FakeServer server;
  server.serve({.says = {"lease orvane-20261121T023224-4711_0"}});

  const Lease lease(server.path(), kLong);

  EXPECT_EQ(lease.queueName(), "orvane-20261121T023224-4711_0");
  EXPECT_TRUE(lease.alive());
}

TEST(LeaseTaking, TakesTheLongestName) {
  FakeServer server;
  server.serve({.says = {"lease " + std::string(506, 'q')}});

  EXPECT_EQ(Lease(server.path(), kLong).queueName(), std::string(506, 'q'));
}

TEST(LeaseTaking, ClosesItsSocketOnExec) {
  FakeServer server;
  server.serve({.says = {"lease q"}});
  const Names before = openDescriptors();

  const Lease lease(server.path(), kLong);
  server.awaitScript();

  Names opened;
  const Names after = openDescriptors();
  std::set_difference(after.begin(), after.end(), before.begin(), before.end(),
                      std::back_inserter(opened));
  ASSERT_EQ(opened.size(), 2u) << "the lease's end and the server's";
  for (const std::string& fd : opened) {
    EXPECT_EQ(fcntl(std::stoi(fd), F_GETFD), FD_CLOEXEC);
  }
}

TEST(LeaseTaking, RejectsATimeoutOutsideOfADay) {
  FakeServer server;
  EXPECT_TRUE(refuses(9,
                      "Invalid timeout, specified value 0 was less than minimum allowed value of 1",
                      server.path(), 0));
  EXPECT_TRUE(refuses(
      9, "Invalid timeout, specified value 86401 was more than maximum allowed value of 86400",
      server.path(), 86401));
}

TEST(LeaseTaking, TakesATimeoutOfADay) {
  FakeServer server;
  server.serve({.says = {"lease q"}});
  EXPECT_EQ(Lease(server.path(), 86400).queueName(), "q");
}

TEST(LeaseTaking, RejectsAPathThatNoSocketCanHave) {
  const std::string message =
      "A socket's path has 1 to 107 bytes, none of them zero; this one has ";
  EXPECT_TRUE(refuses(900, message + "0 bytes", ""));
  EXPECT_TRUE(refuses(900, message + "108 bytes", std::string(108, 'p')));
  EXPECT_TRUE(refuses(900, message + "3 bytes", std::string("a\0b", 3)));
  EXPECT_TRUE(refuses(900, message + "2 bytes", std::string("\0b", 2)));
}

TEST(LeaseTaking, ReportsAPathWithoutASocket) {
  const std::string longest = "/" + std::string(106, 'p');
  EXPECT_TRUE(refuses(900,
                      "No server to ask for a lease at " + longest +
                          ": No such file or directory; is it running, and may this user connect?",
                      longest));
}

TEST(LeaseTaking, ReportsASocketAtWhichNobodyListens) {
  const TempFolder folder;
  const std::string path = folder.path() + "/socket";
  const BoundSocket abandoned(path, SOCK_SEQPACKET);

  EXPECT_TRUE(refuses(900,
                      "No server to ask for a lease at " + path +
                          ": Connection refused; is it running, and may this user connect?",
                      path));
}

TEST(LeaseTaking, ReportsASocketOfAnotherKind) {
  const TempFolder folder;
  const std::string path = folder.path() + "/socket";
  const BoundSocket stream(path, SOCK_STREAM);
  stream.listen();

  EXPECT_TRUE(refuses(900,
                      "No server to ask for a lease at " + path +
                          ": Protocol wrong type for socket; is it running, and may this user "
                          "connect?",
                      path));
}

TEST(LeaseTaking, ThrowsTheServersRefusal) {
  FakeServer server;
  server.serve({.says = {"refused 1005 user 1000 has its 16 pairs"}, .ends = true});

  EXPECT_TRUE(refuses(1005, "user 1000 has its 16 pairs", server));
}

TEST(LeaseTaking, ThrowsTheRefusalOfAServerThatLeavesTheRequestUnread) {
  FakeServer server;
  server.serve({.says = {"refused 1007 too many clients"}, .hears = false, .ends = true});

  EXPECT_TRUE(refuses(1007, "too many clients", server));
}

TEST(LeaseTaking, ReportsAServerThatEndsInsteadOfAnswering) {
  for (const bool hears : {true, false}) {
    FakeServer server;
    server.serve({.hears = hears, .ends = true});
    EXPECT_TRUE(
        refuses(901, "The server ended the lease without a reason: it died or was stopped", server))
        << hears;
  }
}

TEST(LeaseTaking, ReportsAnAnswerOfAnotherVersion) {
  const Names answers = {"hello",
                         "lease",
                         "lease ",
                         "lease a/b",
                         "lease a b",
                         "leaseq",
                         "refused",
                         "refused ",
                         "refused full",
                         "refused 1005",
                         "refused 999 no",
                         "refused 0 no",
                         "refused -1 x",
                         "refused 99999999999 large",
                         "refused 1005no",
                         "failed 1003 no room",
                         "receipt stream=s records=1 bytes=2 segments=1 end=closed"};
  for (const std::string& answer : answers) {
    FakeServer server;
    server.serve({.says = {answer}});
    EXPECT_TRUE(refuses(901,
                        "Unexpected reply \"" + answer +
                            "\" (lease protocol 1): client and server versions differ; install the "
                            "same release of both",
                        server));
  }
}

TEST(LeaseTaking, ReportsTheSizeOnlyOfAnAnswerThatIsNoText) {
  const Names answers = {"lease " + std::string(507, 'q'), std::string("lease a\0b", 9),
                         "lease \x7f", "refused 1005 \x1b[2J"};
  const Names sizes = {"513", "9", "7", "17"};
  for (std::size_t i = 0; i < answers.size(); ++i) {
    FakeServer server;
    server.serve({.says = {answers[i]}});
    EXPECT_TRUE(refuses(901,
                        "Unexpected reply \"" + sizes[i] +
                            " bytes\" (lease protocol 1): client and server versions differ; "
                            "install the same release of both",
                        server));
  }
}

TEST(LeaseTaking, GivesUpOnAServerThatDoesNotAnswer) {
  FakeServer server;
  server.serve({});
  const Stopwatch watch;

  EXPECT_TRUE(
      refuses(15, "Timed out after waiting 1s for the server's answer: it is busy or was stopped",
              server, 1));

  EXPECT_GE(watch.seconds(), 1);
  EXPECT_LT(watch.seconds(), kLong);
}

TEST(LeaseTaking, GivesUpOnAServerThatTakesNoClients) {
  FakeServer server;
  const std::string message =
      "Timed out after waiting 1s for the server's answer: it is busy or was stopped";
  EXPECT_TRUE(refuses(15, message, server.path(), 1)) << "waits as a client not taken yet";
  const Stopwatch watch;

  EXPECT_TRUE(refuses(15, message, server.path(), 1)) << "waits to become one";

  EXPECT_GE(watch.seconds(), 0.99);  // the kernel counts in ticks
  EXPECT_LT(watch.seconds(), kLong);
}

TEST(LeaseTaking, IsNotCutShortBySignals) {
  FakeServer server;
  const Interruptions interruptions;
  const Stopwatch watch;
  const std::string message =
      "Timed out after waiting 1s for the server's answer: it is busy or was stopped";

  EXPECT_TRUE(refuses(15, message, server.path(), 1));
  EXPECT_TRUE(refuses(15, message, server.path(), 1));

  EXPECT_GE(watch.seconds(), 1.98);
  EXPECT_LT(watch.seconds(), kLong);
  EXPECT_GT(interruptions.count(), 10);
}

TEST(LeaseTaking, LeavesNoSocketOpenWhenItsThreadIsCancelled) {
  const FakeServer server;
  const Names before = openDescriptors();
  WaitingThread thread([&] {
    pthread_cancel(pthread_self());  // takes effect at the first call that may wait
    const Lease lease(server.path(), kLong);
  });

  EXPECT_FALSE(thread.returns()) << "it was not cancelled";
  EXPECT_EQ(openDescriptors(), before);
}

TEST(LeaseEnd, EndsTheConnection) {
  FakeServer server;
  server.serve({.says = {"lease q"}});
  { const Lease lease(server.path(), kLong); }
  EXPECT_EQ(server.hear(), "");
}

TEST(LeaseEnd, OfACancelledThreadDoesNotEndTheProcess) {
  FakeServer server;
  server.serve({.says = {"lease q"}});
  WaitingThread thread([&] {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    const Lease lease(server.path(), kLong);
    pthread_cancel(pthread_self());
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
  });

  EXPECT_FALSE(thread.returns()) << "it was not cancelled";
  EXPECT_EQ(server.hear(), "");
}

}  // namespace
}  // namespace orvane::test
