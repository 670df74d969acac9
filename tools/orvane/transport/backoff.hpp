#pragma once

#include <algorithm>
#include <chrono>

#include "interrupt.hpp"

namespace tool {

// The pause between two attempts: short at first, and then longer each time.
class Backoff {
 public:
  explicit Backoff(Interrupt& interrupt) : interrupt(interrupt) {}

  // Throws Interrupted.
  void pause() {
    interrupt.pause(next);
    next = std::min(next * 2, kLongest);
  }

 private:
  static constexpr std::chrono::microseconds kLongest{5000};

  Interrupt& interrupt;
  std::chrono::microseconds next{50};
};

}  // namespace tool
