#pragma once

#include <string>
#include <vector>

#include "lock_file.hpp"

namespace orvaned {

// One server's run, as far as its leases go. Leased queues are named RUN_NUMBER, where RUN is
// "orvane-" and the server's start time and process: such a name never comes again. The run's lock
// file in /dev/shm tells other servers that its queues and streams are in use.
class LeaseRun {
 public:
  // Throws std::runtime_error.
  LeaseRun();

  std::string newQueueName() const;

 private:
  const std::string name;
  const LockFile lock;
};

// What a dead run left in /dev/shm. Holding its lock keeps other servers from cleaning up as well.
struct DeadRun {
  LockFile lock;
  std::vector<std::string> queues;
};

std::vector<DeadRun> takeDeadRuns();

// Are there runs that can only soon be taken?
bool hasDyingRuns();

// Is it a leased queue's name, of a run that has ended?
bool isOfDeadRun(const std::string& queueName);

}  // namespace orvaned
