#include "end_watch.hpp"

#include <poll.h>
#include <sys/signalfd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <string>

namespace orvaned {
namespace {

const Ending kStopped = {"the server was stopped",
                         "the server was stopped: send again what it did not acknowledge"};
const Ending kProducerLeft = {"its producer died or left", "the lease has ended: take a new one"};

int terminationSignal() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  return signalfd(-1, &signals, SFD_CLOEXEC);
}

// The connection alone does not tell: a forked child may hold it. -1 where the process cannot be
// seen or has ended already.
// By number: glibc 2.36 declares pidfd_open() for C only.
int processOf(const LeaseConnection* lease) {
  if (lease == nullptr || lease->producer().pid <= 0) {
    return -1;
  }
  return static_cast<int>(syscall(SYS_pidfd_open, lease->producer().pid, 0));
}

std::string seconds(std::chrono::seconds limit) {
  return std::to_string(limit.count()) + " s";
}

}  // namespace

EndWatch::EndWatch(LeaseConnection* leaseConnection, std::chrono::seconds limit)
    : lease(leaseConnection),
      idleLimit(limit),
      idle{"no record came for " + seconds(limit),
           "no record came for " + seconds(limit) + ": attach to the queue anew"},
      signals(terminationSignal()),
      producer(processOf(lease)) {}

const Ending* EndWatch::within(std::chrono::microseconds pause) {
  if (lease != nullptr) {
    lease->sendKept();
  }
  pollfd events[] = {{signals.get(), POLLIN, 0},
                     {lease != nullptr ? lease->fd() : -1, POLLRDHUP, 0},
                     {producer.get(), POLLIN, 0}};
  const timespec wait = {0, std::chrono::nanoseconds(pause).count()};
  if (ppoll(events, std::size(events), &wait, nullptr) > 0) {
    return events[0].revents != 0 ? &kStopped : &kProducerLeft;
  }
  return isIdle(pause) ? &idle : nullptr;
}

bool EndWatch::isIdle(std::chrono::microseconds pause) {
  if (idleLimit.count() == 0) {
    return false;
  }
  const auto now = Clock::now();
  if (pause.count() == 0) {
    lastBatch = now;
  }
  return lastBatch && now - *lastBatch >= idleLimit;
}

}  // namespace orvaned
