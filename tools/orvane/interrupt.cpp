#include "interrupt.hpp"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace tool {
namespace {

void throwIfReadable(const pollfd& signals) {
  signalfd_siginfo info = {};
  if (signals.revents != 0 && read(signals.fd, &info, sizeof info) == sizeof info) {
    throw Interrupted{static_cast<int>(info.ssi_signo), ""};
  }
}

void waitFor(pollfd* fds, nfds_t count, const timespec* limit) {
  if (ppoll(fds, count, limit, nullptr) < 0 && errno != EINTR) {
    throw std::system_error(errno, std::generic_category(), "poll");
  }
}

}  // namespace

Interrupt::Interrupt(int oneMore) {
  sigemptyset(&caught);
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction action = {};
    if (sigaction(number, nullptr, &action) == 0 && action.sa_handler != SIG_IGN) {
      sigaddset(&caught, number);
    }
  }
  if (oneMore != 0) {
    sigaddset(&caught, oneMore);
  }
  sigprocmask(SIG_BLOCK, &caught, &maskBefore);
  signalFd = signalfd(-1, &caught, SFD_CLOEXEC | SFD_NONBLOCK);
  if (signalFd < 0) {
    throw std::system_error(errno, std::generic_category(), "signalfd");
  }
}

Interrupt::~Interrupt() {
  close(signalFd);
  sigprocmask(SIG_SETMASK, &maskBefore, nullptr);
}

void Interrupt::pause(std::chrono::nanoseconds duration) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(duration);
  const timespec limit = {seconds.count(), (duration - seconds).count()};
  pollfd signals = {signalFd, POLLIN, 0};
  waitFor(&signals, 1, &limit);
  throwIfReadable(signals);
}

void Interrupt::waitReadable(int fd) {
  pollfd fds[] = {{signalFd, POLLIN, 0}, {fd, POLLIN, 0}};
  do {
    waitFor(fds, 2, nullptr);
    throwIfReadable(fds[0]);
  } while (fds[1].revents == 0);
}

}  // namespace tool
