#pragma once

#include <ctime>
#include <functional>
#include <iosfwd>
#include <vector>

namespace orvane::test {

// The moment until which the C library is asked to wait, by the wall clock.
struct Deadline {
  std::time_t seconds = 0;
  long nanoseconds = 0;

  bool operator==(const Deadline&) const = default;
};
std::ostream& operator<<(std::ostream& stream, const Deadline& deadline);

// What pthread_cond_wait, which has no deadline, is recorded as. Such a wait always fails.
constexpr Deadline kForever = {-1, -1};

// Nobody sleeps on a condition variable in this executable: every wait is recorded and ends at
// once, by default because its time is over. One at a time.
class ReplacedWaits {
 public:
  ReplacedWaits();
  ~ReplacedWaits();
  ReplacedWaits(const ReplacedWaits&) = delete;
  ReplacedWaits& operator=(const ReplacedWaits&) = delete;

  // The next wait is woken up by `event`, which happens while the queue's lock is free.
  void wakeUpBy(std::function<void()> event);

  // From now on every wait ends with this error number.
  void endWith(int error);

  // The deadlines since the last call.
  std::vector<Deadline> take();
};

}  // namespace orvane::test
