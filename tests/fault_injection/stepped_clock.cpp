// Preloaded into a program, puts its wall clock ahead by the seconds that stand, as 8 bytes, in the
// file named by STEPPED_CLOCK: from one moment to the next, also in the middle of a wait. Only what
// orvane uses of the clock is replaced, and no other clock.

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <ctime>

namespace {

using Offset = std::atomic<std::int64_t>;

constexpr long kSliceNanoseconds = 5'000'000;
constexpr long kSecondNanoseconds = 1'000'000'000;

std::int64_t offset() {
  static const Offset* const mapped = [] {
    const int fd = open(std::getenv("STEPPED_CLOCK"), O_RDONLY | O_CLOEXEC);
    const void* memory = mmap(nullptr, sizeof(Offset), PROT_READ, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED) {
      std::abort();
    }
    close(fd);
    return static_cast<const Offset*>(memory);
  }();
  return mapped->load();
}

timespec trueTime() {
  timespec now = {};
  syscall(SYS_clock_gettime, CLOCK_REALTIME, &now);
  return now;
}

bool isPast(const timespec& deadline) {
  timespec now = trueTime();
  now.tv_sec += offset();
  return now.tv_sec > deadline.tv_sec ||
         (now.tv_sec == deadline.tv_sec && now.tv_nsec >= deadline.tv_nsec);
}

// Waits in slices, so that a step counts at once, as it does when the system's own clock is
// stepped.
template <typename WaitUntil>
int waitInSlices(const timespec& deadline, WaitUntil waitUntil) {
  for (;;) {
    timespec slice = trueTime();
    slice.tv_nsec += kSliceNanoseconds;
    slice.tv_sec += slice.tv_nsec / kSecondNanoseconds;
    slice.tv_nsec %= kSecondNanoseconds;
    const int result = waitUntil(slice);
    if (result != ETIMEDOUT || isPast(deadline)) {
      return result;
    }
  }
}

}  // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec* time) noexcept {
  const long result = syscall(SYS_clock_gettime, clock, time);
  if (result == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE)) {
    time->tv_sec += offset();
  }
  return static_cast<int>(result);
}

int gettimeofday(timeval* time, void* /*zone*/) noexcept {
  const timespec now = trueTime();
  *time = {now.tv_sec + offset(), now.tv_nsec / 1000};
  return 0;
}

time_t time(time_t* copy) noexcept {
  const time_t now = trueTime().tv_sec + offset();
  if (copy != nullptr) {
    *copy = now;
  }
  return now;
}

int pthread_mutex_timedlock(pthread_mutex_t* mutex, const timespec* deadline) noexcept {
  return waitInSlices(*deadline, [mutex](const timespec& slice) {
    return pthread_mutex_clocklock(mutex, CLOCK_REALTIME, &slice);
  });
}

int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                           const timespec* deadline) {
  return waitInSlices(*deadline, [condition, mutex](const timespec& slice) {
    return pthread_cond_clockwait(condition, mutex, CLOCK_REALTIME, &slice);
  });
}

}  // extern "C"
