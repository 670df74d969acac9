#pragma once

#include <string>
#include <vector>

#include "shm/lock_file.hpp"

namespace orvaned {

// The names of one server run's leases. Leased queues are named RUN_RANDOM (shm_names.hpp), where
// RUN is "orvane-" and the server's start time and process, so no other run has such a name. The
// run's lock file in /dev/shm shows other servers that its queues and streams are in use.
class LeaseRun {
 public:
  // Throws std::runtime_error.
  LeaseRun();

  // A name that no file in /dev/shm has; an existing file is never opened. Throws
  // std::runtime_error if the system has no random numbers.
  std::string newQueueName() const;

  int lockFile() const { return lock.file(); }

 private:
  const std::string name;
  const tool::LockFile lock;
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
