#pragma once

#include <optional>
#include <string>
#include <vector>

#include "shm/lock_file.hpp"

namespace orvaned {

// The names of one server run's leases. They are RUN_RANDOM (shm_names.hpp), where RUN is "orvane-"
// and the server's start time and process, so no other run has such a name.
class LeaseRun {
 public:
  LeaseRun();

  // To be called before the first queue is leased: makes the run's lock file in /dev/shm, which
  // shows other servers that its queues are in use. Rings have nothing there, so a server that
  // leases rings only leaves nothing behind. Throws std::runtime_error.
  void lockForQueues();

  // A name that no file in /dev/shm has; an existing file is never opened. Throws
  // std::runtime_error if the system has no random numbers.
  std::string newQueueName() const;

  // -1 before lockForQueues().
  int lockFile() const { return lock ? lock->file() : -1; }

 private:
  const std::string name;
  std::optional<tool::LockFile> lock;
};

// The queues of a dead run in /dev/shm. While its lock is held, no other server cleans up as well.
struct DeadRun {
  tool::LockFile lock;
  std::vector<std::string> queues;
};

struct DeadRuns {
  std::vector<DeadRun> locked;
  bool moreLater = false;  // some dead runs can only be locked later
};

// Locks all dead runs that it can.
DeadRuns lockDeadRuns();

// The owner of the run that a leased queue is named after; alive for every other name.
tool::LockFile::OwnerState ownerOfLeased(const std::string& queueName);

}  // namespace orvaned
