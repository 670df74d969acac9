#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <string>

#include "interrupt.hpp"

namespace tool {

// An orvaned of one's own: the one beside this program, or else the one in PATH. It ends with this
// process, however that ends; destroying this object ends it and removes what it may have left of
// its queues.
class ServerProcess {
 public:
  // Starts it; what it says goes to `logFile`. Throws Failure.
  ServerProcess(const std::string& queue, const std::filesystem::path& store,
                const std::filesystem::path& logFile);
  ~ServerProcess();
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

  // Returns when its queues can be used. Throws Failure when that takes too long; Interrupted.
  void waitUntilReady(Interrupt& interrupt);

  // To be called when it ended unasked (SIGCHLD): throws Failure, saying how.
  [[noreturn]] void throwEnded();

  // Asks it to end. Throws Failure when it does not, or not well.
  void stop();

 private:
  bool waitForEnd(std::chrono::milliseconds limit);
  std::string howItEnded() const;

  const std::string queueName;
  const std::filesystem::path log;
  pid_t pid = -1;  // -1: there is no process to end
  pid_t group = -1;
  int endStatus = 0;
};

}  // namespace tool
