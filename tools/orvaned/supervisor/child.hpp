#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <utility>

#include "shm/fd.hpp"
#include "worker/heartbeat.hpp"

namespace orvaned {

// The exit code of a process whose task threw an exception.
constexpr int kTaskThrew = 3;

// A forked process that runs one task. An exception of the task is logged, and the process ends
// with kTaskThrew.
class Child {
 public:
  using Clock = std::chrono::steady_clock;
  using Task = std::function<int(Heartbeat&)>;

  // What the new process does when this one dies first.
  enum class Orphaned { ends /* by SIGTERM */, continues };

  // Runs `task` in a new process, which exits with the value that it returns. The objects of this
  // process are not destroyed there. Throws std::system_error.
  explicit Child(const Task& task, Orphaned orphaned = Orphaned::ends);

  // Kills it if it still runs, and waits a second for its end, but not if it was abandoned: it may
  // be waiting for a disk.
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  // The status of waitpid(), once it has ended. Does not block.
  std::optional<int> ended();

  void signal(int number) const;

  // Kills it without waiting for its end.
  void abandon();

  pid_t process() const { return pid; }
  bool isReady() const { return heartbeat->ready.load(); }
  Clock::duration age() const { return Clock::now() - start; }

  // The forbidden system call that ended it; -1: none.
  int refusedCall() const { return heartbeat->refusedCall.load(); }

  // How long it has been inside the same queue call, as far as the calls to this function show.
  Clock::duration insideQueueCall();

  // The processor time that it has used since it received its last message, or since it last
  // rested, as far as the calls to this function show. It rests while it uses less than 1/32 of a
  // processor: its queue is empty, or it waits for a disk.
  Clock::duration busyWithoutMessage();

 private:
  Heartbeat* const heartbeat;
  bool abandoned = false;
  const Clock::time_point start = Clock::now();
  std::uint32_t lastCalls = 0;
  Clock::time_point lastChange = start;
  std::uint32_t lastMessages = 0;
  Clock::time_point busySince = start;
  Clock::duration busyFrom{0};
  pid_t pid;
  std::optional<int> status;
};

// For a task that may end at any moment: SIGTERM, which it inherits blocked, ends its process.
void endAtTermination();

// The two ends of a packet socket between two processes. Throws std::system_error.
std::pair<tool::Fd, tool::Fd> connectedSockets();

// In a new process: sets its name in lists of processes; at most 15 bytes.
void nameProcess(const char* name);

// In a new process: replaces the standard files by /dev/null. A build with a sanitizer keeps them,
// because the sanitizer reports there.
void closeStandardFiles();

}  // namespace orvaned
