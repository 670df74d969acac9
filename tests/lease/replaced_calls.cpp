#include "replaced_calls.hpp"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace orvane::test {

ReplacedCalls& replacedCalls() {
  thread_local ReplacedCalls calls;
  return calls;
}

namespace {

class FreshForEachTest : public testing::EmptyTestEventListener {
  void OnTestStart(const testing::TestInfo&) override { replacedCalls() = ReplacedCalls(); }
};

[[maybe_unused]] const bool isListening = [] {
  testing::UnitTest::GetInstance()->listeners().Append(new FreshForEachTest);
  return true;
}();

template <typename... Arguments>
long callOrFail(const char* name, long number, Arguments... arguments) {
  if (replacedCalls().failing == name) {
    replacedCalls().failing.clear();
    errno = replacedCalls().failure;
    return -1;
  }
  return syscall(number, arguments...);
}

}  // namespace
}  // namespace orvane::test

using orvane::test::callOrFail;
using orvane::test::ReplacedCalls;
using orvane::test::replacedCalls;

// These take the place of the C library's for everything that this executable loads.
#define REPLACED extern "C" __attribute__((visibility("default")))

REPLACED int socket(int domain, int type, int protocol) noexcept {
  return static_cast<int>(callOrFail("socket", SYS_socket, domain, type, protocol));
}

REPLACED int memfd_create(const char* name, unsigned int flags) noexcept {
  replacedCalls().memfdFlags.push_back(flags);
  return static_cast<int>(callOrFail("memfd_create", SYS_memfd_create, name, flags));
}

REPLACED int setsockopt(int fd, int level, int name, const void* value, socklen_t size) noexcept {
  if (name == SO_SNDTIMEO && size == sizeof(timeval)) {
    replacedCalls().sendLimits.push_back(*static_cast<const timeval*>(value));
  }
  return static_cast<int>(callOrFail("setsockopt", SYS_setsockopt, fd, level, name, value, size));
}

REPLACED int connect(int fd, const sockaddr* address, socklen_t size) {
  return static_cast<int>(callOrFail("connect", SYS_connect, fd, address, size));
}

REPLACED ssize_t send(int fd, const void* buffer, std::size_t size, int flags) {
  if (replacedCalls().beforeSend) {
    std::exchange(replacedCalls().beforeSend, nullptr)();
  }
  replacedCalls().sendFlags.push_back(flags);
  return callOrFail("send", SYS_sendto, fd, buffer, size, flags, nullptr, 0);
}

REPLACED ssize_t recvmsg(int fd, msghdr* message, int flags) {
  replacedCalls().recvFlags.push_back(flags);
  const ssize_t received = callOrFail("recvmsg", SYS_recvmsg, fd, message, flags);
  if (replacedCalls().losesFiles) {
    message->msg_flags |= MSG_CTRUNC;
  }
  return received;
}

REPLACED int poll(pollfd* fds, nfds_t count, int timeout) {
  ReplacedCalls& calls = replacedCalls();
  calls.polled.push_back(*fds);
  calls.pollTimeouts.push_back(timeout);
  if (calls.falseAlarms > 0) {
    --calls.falseAlarms;
    fds->revents = POLLIN;
    return 1;
  }
  return static_cast<int>(callOrFail("poll", SYS_poll, fds, count, timeout));
}

REPLACED int shutdown(int fd, int how) noexcept {
  if (replacedCalls().beforeShutdown) {
    std::exchange(replacedCalls().beforeShutdown, nullptr)();
  }
  return static_cast<int>(callOrFail("shutdown", SYS_shutdown, fd, how));
}

REPLACED int nanosleep(const timespec* pause, timespec* left) {
  replacedCalls().pauses.push_back(*pause);
  return static_cast<int>(callOrFail("nanosleep", SYS_nanosleep, pause, left));
}

REPLACED int clock_gettime(clockid_t clock, timespec* now) noexcept {
  static constexpr time_t kDay = 86400;
  thread_local time_t days = 0;
  const auto result = static_cast<int>(syscall(SYS_clock_gettime, clock, now));
  const bool isWallClock = clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE;
  const ReplacedCalls& calls = replacedCalls();
  if (isWallClock ? calls.wallClockJumps : calls.steadyClockJumps) {
    now->tv_sec += ++days * kDay;
  }
  return result;
}
