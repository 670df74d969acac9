#pragma once

#include <signal.h>

#include <chrono>
#include <string>

namespace tool {

// A signal asked the command to end. Thrown only where it may be, so that everything is cleaned up
// on the way out; main then dies of the same signal.
struct Interrupted {
  int signal;
  std::string during;  // what it ended, for the user; may be empty
};

// While one exists, SIGINT, SIGTERM and SIGHUP wait until they are asked for, and so does one more
// signal if one is given. Those of the three that were ignored (nohup) stay ignored.
class Interrupt {
 public:
  explicit Interrupt(int oneMore = 0);
  ~Interrupt();
  Interrupt(const Interrupt&) = delete;
  Interrupt& operator=(const Interrupt&) = delete;

  // Each throws Interrupted when a signal is there or arrives meanwhile.
  void check() { pause(std::chrono::nanoseconds(0)); }
  void pause(std::chrono::nanoseconds duration);
  void waitReadable(int fd);

 private:
  sigset_t caught = {};
  sigset_t maskBefore = {};
  int signalFd;
};

}  // namespace tool
