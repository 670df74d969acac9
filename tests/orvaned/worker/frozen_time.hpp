#pragma once

#include <poll.h>

#include <functional>
#include <vector>

namespace orvane::test {

// While it lives, CLOCK_MONOTONIC stands still. Only a poll() moves it: instead of waiting, it lets
// its whole timeout pass when nothing is ready. One at a time, for programs of one thread.
class FrozenTime {
 public:
  struct Poll {
    nfds_t count;
    int timeout;  // in milliseconds

    bool operator==(const Poll&) const = default;
  };

  FrozenTime();
  ~FrozenTime();
  FrozenTime(const FrozenTime&) = delete;
  FrozenTime& operator=(const FrozenTime&) = delete;

  std::vector<Poll> polls = {};
  std::vector<pollfd> polled = {};  // the first file of each, before the call
  std::function<void()> duringPoll = [] {};
  std::function<void()> duringLook = [] {};  // at the clock
};

}  // namespace orvane::test
