#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <string>
#include <utility>

#include "fake_server.hpp"
#include "orvane/lease.hpp"
#include "support/throws.hpp"

namespace {

// The next call of this name in the test's thread fails so, once.
thread_local std::string failingCall;
thread_local int failure = 0;

// Done before the next send in the test's thread.
thread_local std::function<void()> beforeSend;

void failNext(const std::string& call, int error) {
  failingCall = call;
  failure = error;
}

template <typename... Arguments>
long callOrFail(const char* name, long number, Arguments... arguments) {
  if (failingCall == name) {
    failingCall.clear();
    errno = failure;
    return -1;
  }
  return syscall(number, arguments...);
}

}  // namespace

// These take the place of the C library's for everything that this executable loads.
#define REPLACED extern "C" __attribute__((visibility("default")))

REPLACED int socket(int domain, int type, int protocol) noexcept {
  return static_cast<int>(callOrFail("socket", SYS_socket, domain, type, protocol));
}

REPLACED int setsockopt(int fd, int level, int name, const void* value, socklen_t size) noexcept {
  return static_cast<int>(callOrFail("setsockopt", SYS_setsockopt, fd, level, name, value, size));
}

REPLACED ssize_t send(int fd, const void* buffer, std::size_t size, int flags) {
  if (beforeSend) {
    std::exchange(beforeSend, nullptr)();
  }
  return callOrFail("send", SYS_sendto, fd, buffer, size, flags, nullptr, 0);
}

REPLACED ssize_t recv(int fd, void* buffer, std::size_t size, int flags) {
  return callOrFail("recv", SYS_recvfrom, fd, buffer, size, flags, nullptr, nullptr);
}

REPLACED int poll(pollfd* fds, nfds_t count, int timeout) {
  return static_cast<int>(callOrFail("poll", SYS_poll, fds, count, timeout));
}

namespace orvane::test {
namespace {

constexpr unsigned int kLong = 60;  // seconds; nothing here takes so long

// Taking a lease while a call fails; no descriptor may be left open.
testing::AssertionResult refuses(const char* call, int error, ox_status_t status,
                                 const std::string& message) {
  FakeServer server;
  server.serve({.says = {"lease q"}});
  const std::size_t before = namesIn("/proc/self/fd").size();
  const testing::AssertionResult result = throwsErrno(status, message, [&] {
    failNext(call, error);
    Lease(server.path(), kLong);
  });
  server.end();
  return namesIn("/proc/self/fd").size() <= before
             ? result
             : testing::AssertionFailure() << "a descriptor was left open";
}

TEST(LeaseTaking, ReportsThatASocketCannotBeMade) {
  EXPECT_TRUE(refuses("socket", EMFILE, 900,
                      "Cannot make a socket to ask for a lease: Too many open files"));
}

TEST(LeaseTaking, ReportsThatItsWaitCannotBeLimited) {
  EXPECT_TRUE(refuses("setsockopt", ENOPROTOOPT, 900,
                      "Cannot limit the wait for a lease: Protocol not available"));
}

TEST(LeaseTaking, ReportsThatItCannotAsk) {
  EXPECT_TRUE(refuses("send", ENOBUFS, 901,
                      "Cannot ask the server for a lease: No buffer space available"));
}

TEST(LeaseTaking, ReportsThatItCannotWait) {
  EXPECT_TRUE(refuses("poll", ENOMEM, 901, "Cannot wait for the server: Cannot allocate memory"));
}

TEST(LeaseTaking, ReportsThatItCannotHear) {
  EXPECT_TRUE(refuses("recv", ENOMEM, 901, "Cannot hear the server: Cannot allocate memory"));
}

TEST(LeaseTaking, HearsAServerThatRefusedAndEndedBeforeItWasAsked) {
  FakeServer server;
  server.serve({.says = {"refused 1004 the server is ending"}, .hears = false, .ends = true});
  beforeSend = [&] { server.awaitScript(); };

  EXPECT_TRUE(throwsErrno(1004, "the server is ending", [&] { Lease(server.path(), kLong); }));
}

TEST(LeaseReceipt, IsWaitedForAgainAfterAFalseAlarm) {
  for (const int error : {EAGAIN, EINTR}) {
    FakeServer server;
    server.serve({.says = {"lease q", "receipt x"}});
    Lease lease(server.path(), kLong);
    server.awaitScript();
    failNext("recv", error);
    EXPECT_EQ(lease.receipt(kLong), "receipt x");
  }
}

TEST(LeaseReceipt, EndsTheLeaseWhenItCannotBeHeard) {
  FakeServer server;
  server.serve({.says = {"lease q"}});
  Lease lease(server.path(), kLong);
  server.say("receipt x");
  failNext("recv", ENOMEM);

  EXPECT_TRUE(throwsErrno(901, "Cannot hear the server: Cannot allocate memory",
                          [&] { lease.receipt(kLong); }));

  EXPECT_FALSE(lease.alive());
}

TEST(LeaseAlive, IsSaidOfALeaseThatCannotBeLookedAt) {
  FakeServer server;
  server.serve({.says = {"lease q"}});
  const Lease lease(server.path(), kLong);
  failNext("poll", ENOMEM);

  EXPECT_TRUE(lease.alive());

  server.end();
  EXPECT_FALSE(lease.alive());
}

}  // namespace
}  // namespace orvane::test
