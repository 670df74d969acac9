#pragma once

#include <algorithm>
#include <chrono>

namespace orvane {

// The end of the time that one call of a stream may wait.
class Deadline {
 public:
  using Clock = std::chrono::steady_clock;

  explicit Deadline(std::chrono::nanoseconds timeout) : end(Clock::now() + timeout) {}

  // Of a call that does not wait.
  static Deadline passed() { return Deadline(std::chrono::nanoseconds(0)); }

  // Never negative.
  std::chrono::nanoseconds left() const {
    return std::max<std::chrono::nanoseconds>(end - Clock::now(), std::chrono::nanoseconds(0));
  }
  bool isOver() const { return left().count() == 0; }

 private:
  Clock::time_point end;
};

}  // namespace orvane
