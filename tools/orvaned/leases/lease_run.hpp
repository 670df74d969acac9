#pragma once

#include <string>
#include <vector>

#include "shm/lock_file.hpp"

namespace orvaned {

// One server's run, as far as its leases go. Leased queues are named RUN_RANDOM (shm_names.hpp),
// where RUN is "orvane-" and the server's start time and process: such a name never comes again.
// The run's lock file in /dev/shm tells other servers that its queues and streams are in use.
class LeaseRun {
 public:
  // Throws std::runtime_error.
  LeaseRun();

  // A name that nothing in /dev/shm has: what somebody put under the name is skipped, never opened.
  // Throws std::runtime_error when the system has no random numbers.
  std::string newQueueName() const;

  int lockFile() const { return lock.file(); }

 private:
  const std::string name;
  const tool::LockFile lock;
};

// What a dead run left in /dev/shm. Holding its lock keeps other servers from cleaning up as well.
struct DeadRun {
  tool::LockFile lock;
  std::vector<std::string> queues;
};

struct DeadRuns {
  std::vector<DeadRun> taken;
  bool moreToCome = false;  // others can only be taken later
};
DeadRuns takeDeadRuns();

// Of the run that a leased queue is named after; alive for every other name.
tool::LockFile::Owner ownerOfLeased(const std::string& queueName);

}  // namespace orvaned
