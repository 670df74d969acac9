#pragma once

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <ctime>

namespace orvane::ring {

// What the hand-over needs of the machine and of Linux. A futex works through a read-only mapping
// as well, so each side can sleep on the other side's counter.
struct LinuxSystem {
  template <typename T>
  using Atomic = std::atomic<T>;

  static constexpr std::memory_order kRelaxed = std::memory_order_relaxed;
  static constexpr std::memory_order kAcquire = std::memory_order_acquire;
  static constexpr std::memory_order kRelease = std::memory_order_release;

  static void fence() {
#ifdef __SANITIZE_THREAD__
    // The sanitizer does not understand fences. A locked instruction orders the same.
    static std::atomic<int> ordered;
    ordered.fetch_add(1, std::memory_order_seq_cst);
#else
    std::atomic_thread_fence(std::memory_order_seq_cst);
#endif
  }
  static void pause() {
    __builtin_ia32_pause();
  }

  static std::int64_t now() {
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1'000'000'000 + time.tv_nsec;
  }

  // Sleeps while the low half of `counter` is that of `seen`, at most `nanoseconds`, less than 1 s.
  static void wait(const Atomic<std::uint64_t>& counter, std::uint64_t seen,
                   std::int64_t nanoseconds) {
    const timespec limit = {0, nanoseconds};
    syscall(SYS_futex, &counter, FUTEX_WAIT, static_cast<std::uint32_t>(seen), &limit, nullptr, 0);
  }

  // Returns whether a sleeper was woken.
  static bool wake(const Atomic<std::uint64_t>& counter) {
    return syscall(SYS_futex, &counter, FUTEX_WAKE, 1, nullptr, nullptr, 0) == 1;
  }
};

static_assert(std::atomic<std::uint64_t>::is_always_lock_free, "it is shared between processes");

}  // namespace orvane::ring
