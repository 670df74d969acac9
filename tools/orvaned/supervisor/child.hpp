#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <utility>

#include "shm/fd.hpp"
#include "worker/heartbeat.hpp"

namespace orvaned {

// What a process exits with when an exception left its task.
constexpr int kTaskThrew = 3;

// A forked process that does one task. No exception leaves it: whatever its task throws is logged,
// and the process ends with kTaskThrew.
class Child {
 public:
  using Clock = std::chrono::steady_clock;
  using Task = std::function<int(Heartbeat&)>;

  // What it does when this process dies before it.
  enum class Orphaned { isToldToEnd /* SIGTERM */, goesOn };

  // Runs `task` in a new process, which exits with what it returns; nothing of this process's
  // objects is destroyed there. Throws std::system_error.
  explicit Child(const Task& task, Orphaned orphaned = Orphaned::isToldToEnd);

  // Kills it if it still runs, and waits a second for its end, unless it is abandoned: it may hang
  // in a disk.
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  // The status of waitpid(), once it has ended. Does not block.
  std::optional<int> ended();

  void signal(int number) const;

  // Kills it; nobody waits for its end.
  void abandon();

  pid_t process() const { return pid; }
  bool isReady() const { return heartbeat->ready.load(); }
  Clock::duration age() const { return Clock::now() - start; }

  // The system call that it was not allowed and that ended it; -1: none.
  int refusedCall() const { return heartbeat->refusedCall.load(); }

  // For how long it has been in one and the same queue call, as far as the calls to this function
  // have seen.
  Clock::duration insideQueueCall();

  // The processor time that it has used since it took its last message, or since it last rested, as
  // far as the calls to this function have seen. It rests while it uses less than 1/32 of a
  // processor: an empty queue that it looks at, or a disk that it waits for.
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

// The ends of a socket of packets between two processes. Throws std::system_error.
std::pair<tool::Fd, tool::Fd> connectedSockets();

// In a new process: gives it a name of its own in lists of processes; at most 15 bytes.
void nameProcess(const char* name);

// In a new process: makes the standard files empty ones. Not in a build with a sanitizer, which
// reports what it finds there.
void closeStandardFiles();

}  // namespace orvaned
