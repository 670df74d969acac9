#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>

#include "heartbeat.hpp"

namespace orvaned {

// A forked process that does one task. It is told to end (SIGTERM) when this process dies.
class Child {
 public:
  using Clock = std::chrono::steady_clock;
  using Task = std::function<int(Heartbeat&)>;

  // Runs `task` in a new process, which exits with what it returns; nothing of this process's
  // objects is destroyed there. Throws std::system_error.
  explicit Child(const Task& task);

  // Kills it if it still runs, and waits a second for its end: it may hang in a disk.
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  // The status of waitpid(), once it has ended. Does not block.
  std::optional<int> ended();

  void signal(int number) const;

  pid_t process() const { return pid; }
  bool isReady() const { return heartbeat->ready.load(); }
  Clock::duration age() const { return Clock::now() - start; }

  // For how long it has been in one and the same queue call, as far as the calls to this function
  // have seen.
  Clock::duration insideQueueCall();

 private:
  Heartbeat* const heartbeat;
  const Clock::time_point start = Clock::now();
  std::uint32_t lastCalls = 0;
  Clock::time_point lastChange = start;
  pid_t pid;
  std::optional<int> status;
};

// For a task that may end at any moment: SIGTERM, which it inherits blocked, ends its process.
void endAtTermination();

}  // namespace orvaned
