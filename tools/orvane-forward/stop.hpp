#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>

namespace forward {

// Thrown by what waits when the program is to end.
struct Stopped {};

// Tells all threads that the program is to end.
class Stop {
 public:
  void request() {
    const std::lock_guard lock(mutex);
    isRequested = true;
    changed.notify_all();
  }

  // Waits; throws Stopped as soon as the end is requested.
  void wait(std::chrono::milliseconds duration) {
    std::unique_lock lock(mutex);
    if (changed.wait_for(lock, duration, [this] { return isRequested; })) {
      throw Stopped();
    }
  }
  void check() { wait(std::chrono::milliseconds(0)); }

 private:
  std::mutex mutex;
  std::condition_variable changed;
  bool isRequested = false;
};

// The pauses between attempts: 0.2 s, then each twice as long, up to 5 s.
class Backoff {
 public:
  std::chrono::milliseconds next() {
    const auto now = pause;
    pause = std::min(pause * 2, kLongest);
    return now;
  }

 private:
  static constexpr std::chrono::milliseconds kLongest{5000};
  std::chrono::milliseconds pause{200};
};

}  // namespace forward
