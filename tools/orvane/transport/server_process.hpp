#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <string>

#include "interrupt.hpp"

namespace tool {

// A private orvaned: the program in the folder of this one, or else the one in PATH. It ends with
// this process. The destructor ends it and removes all files that are left of its queues.
class ServerProcess {
 public:
  // Starts it; its output goes to the file `log`. Throws Failure.
  ServerProcess(const std::string& queueName, const std::filesystem::path& store,
                const std::filesystem::path& log);
  ~ServerProcess();
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

  // Returns when its queues can be used. Throws Failure if that takes too long; Interrupted.
  void waitUntilReady(Interrupt& interrupt);

  // To be called when it ended by itself (SIGCHLD). Throws Failure with the reason.
  [[noreturn]] void throwEnded();

  // Ends it with SIGTERM. Throws Failure if it does not end in time, or ends with an error.
  void stop();

 private:
  bool waitForEnd(std::chrono::milliseconds limit);
  std::string howItEnded() const;

  const std::string queueName;
  const std::filesystem::path log;
  pid_t pid = -1;  // -1 if there is no process to end
  pid_t group = -1;
  int endStatus = 0;
};

}  // namespace tool
