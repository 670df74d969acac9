#include "orvaned/worker/frozen_time.hpp"

#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

namespace orvane::test {
namespace {

FrozenTime* frozen = nullptr;
timespec standing = {};

void letPass(int milliseconds) {
  constexpr long kSecond = 1'000'000'000;
  standing.tv_nsec += milliseconds * 1'000'000L;
  standing.tv_sec += standing.tv_nsec / kSecond;
  standing.tv_nsec %= kSecond;
}

int pollOrPass(pollfd* files, nfds_t count, int timeout) {
  if (frozen == nullptr) {
    return static_cast<int>(syscall(SYS_poll, files, count, timeout));
  }
  frozen->polled.push_back(*files);
  frozen->polls.push_back({count, timeout});
  frozen->duringPoll();
  const auto ready = static_cast<int>(syscall(SYS_poll, files, count, 0));
  if (ready == 0) {
    letPass(timeout);
  }
  return ready;
}

}  // namespace

FrozenTime::FrozenTime() {
  clock_gettime(CLOCK_MONOTONIC, &standing);
  frozen = this;
}
FrozenTime::~FrozenTime() {
  frozen = nullptr;
}

}  // namespace orvane::test

using namespace orvane::test;

// These take the place of the C library's for everything that this executable loads.
#define REPLACED extern "C" __attribute__((visibility("default")))

REPLACED int poll(pollfd* files, nfds_t count, int timeout) {
  return pollOrPass(files, count, timeout);
}

REPLACED int clock_gettime(clockid_t clock, timespec* now) noexcept {
  if (frozen == nullptr || clock != CLOCK_MONOTONIC) {
    return static_cast<int>(syscall(SYS_clock_gettime, clock, now));
  }
  frozen->duringLook();
  *now = standing;
  return 0;
}
