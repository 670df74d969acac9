#include "ring/fork_count.hpp"

#include <pthread.h>

#include <atomic>

namespace orvane::ring {

namespace {

std::atomic<unsigned int> forks{0};

[[maybe_unused]] const int registered = pthread_atfork(nullptr, nullptr, [] { ++forks; });

}  // namespace

unsigned int forkCount() {
  return forks.load(std::memory_order_relaxed);
}

}  // namespace orvane::ring
