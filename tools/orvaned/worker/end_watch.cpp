#include "worker/end_watch.hpp"

#include <poll.h>
#include <sys/signalfd.h>

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

std::string seconds(std::chrono::seconds limit) {
  return std::to_string(limit.count()) + " s";
}

}  // namespace

EndWatch::EndWatch(LeaseConnection* lease, std::chrono::seconds idleLimit)
    : lease(lease),
      idleLimit(idleLimit),
      idle{"no record came for " + seconds(idleLimit),
           "no record came for " + seconds(idleLimit) + ": attach to the queue anew"},
      signals(terminationSignal()),
      // The connection alone is not enough: a forked child may hold it.
      producer(lease != nullptr ? lease->pidfd() : -1) {}

const Ending* EndWatch::within(std::chrono::microseconds pause) {
  if (lease != nullptr) {
    lease->sendKept();
  }
  pollfd events[] = {{signals.get(), POLLIN, 0},
                     {lease != nullptr ? lease->fd() : -1, POLLRDHUP, 0},
                     {producer, POLLIN, 0}};
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
