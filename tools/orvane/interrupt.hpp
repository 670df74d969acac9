#pragma once

#include <signal.h>

#include <chrono>
#include <string>

namespace tool {

// The exception for a signal that asks the command to end. Only calls that expect it throw it, so
// that everything is cleaned up; main then dies of the same signal.
struct Interrupted {
  int signal;
  std::string during;  // the work that it ended, as a text for the user; may be empty
};

// While an object exists, SIGINT, SIGTERM, SIGHUP and one more signal, if one is given, are held
// back until a call asks for them. Those of the three that were ignored (nohup) stay ignored.
class Interrupt {
 public:
  explicit Interrupt(int oneMore = 0);
  ~Interrupt();
  Interrupt(const Interrupt&) = delete;
  Interrupt& operator=(const Interrupt&) = delete;

  // Each call throws Interrupted if a signal is held back or arrives meanwhile.
  void check() { pause(std::chrono::nanoseconds(0)); }
  void pause(std::chrono::nanoseconds duration);
  void waitReadable(int fd);

 private:
  sigset_t caught = {};
  sigset_t maskBefore = {};
  int signalFd;
};

}  // namespace tool
