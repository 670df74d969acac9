#include "replaced_waits.hpp"

#include <pthread.h>

#include <cerrno>
#include <ostream>
#include <utility>

namespace {

std::vector<orvane::test::Deadline> deadlines;
std::function<void()> nextEvent;
int endsWith = ETIMEDOUT;

}  // namespace

namespace orvane::test {

std::ostream& operator<<(std::ostream& stream, const Deadline& deadline) {
  return stream << deadline.seconds << " s " << deadline.nanoseconds << " ns";
}

ReplacedWaits::ReplacedWaits() {
  take();
}

ReplacedWaits::~ReplacedWaits() {
  nextEvent = nullptr;
  endsWith = ETIMEDOUT;
}

void ReplacedWaits::wakeUpBy(std::function<void()> event) {
  nextEvent = std::move(event);
}

void ReplacedWaits::endWith(int error) {
  endsWith = error;
}

std::vector<Deadline> ReplacedWaits::take() {
  return std::exchange(deadlines, {});
}

}  // namespace orvane::test

// Take the place of the C library's for everything that this executable loads.
extern "C" __attribute__((visibility("default"))) int pthread_cond_timedwait(
    pthread_cond_t*, pthread_mutex_t* mutex, const timespec* deadline) {
  deadlines.push_back({deadline->tv_sec, deadline->tv_nsec});
  const std::function<void()> event = std::exchange(nextEvent, nullptr);
  if (!event) {
    return endsWith;
  }
  pthread_mutex_unlock(mutex);
  event();
  pthread_mutex_lock(mutex);
  return 0;
}

extern "C" __attribute__((visibility("default"))) int pthread_cond_wait(pthread_cond_t*,
                                                                        pthread_mutex_t*) {
  deadlines.push_back(orvane::test::kForever);
  return EINVAL;
}
