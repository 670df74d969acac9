#include "support/eventually.hpp"

#include <sched.h>

#include <chrono>

namespace orvane::test {

bool eventually(const std::function<bool()>& condition) {
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(kTimeoutMilliseconds);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    sched_yield();
  }
  return true;
}

}  // namespace orvane::test
