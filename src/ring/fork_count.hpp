#pragma once

#include <atomic>

namespace orvane::ring {

extern std::atomic<unsigned int> forks;

// The number of forks between this process and the one that loaded the library. Unlike getpid(), it
// costs no system call.
inline unsigned int forkCount() {
  return forks.load(std::memory_order_relaxed);
}

}  // namespace orvane::ring
