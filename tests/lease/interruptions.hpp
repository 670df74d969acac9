#pragma once

#include <signal.h>
#include <sys/time.h>

#include <atomic>

namespace orvane::test {

// While it lives, a signal interrupts this process's calls a hundred times a second.
class Interruptions {
 public:
  Interruptions() {
    arrived = 0;
    struct sigaction action = {};
    action.sa_handler = [](int) { ++arrived; };  // without SA_RESTART
    sigaction(SIGALRM, &action, &before);
    const itimerval often = {{0, 10'000}, {0, 10'000}};
    setitimer(ITIMER_REAL, &often, nullptr);
  }
  ~Interruptions() {
    const itimerval never = {};
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &before, nullptr);
  }
  Interruptions(const Interruptions&) = delete;
  Interruptions& operator=(const Interruptions&) = delete;

  int count() const { return arrived; }

 private:
  inline static std::atomic<int> arrived = 0;
  struct sigaction before = {};
};

}  // namespace orvane::test
