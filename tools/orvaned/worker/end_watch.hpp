#pragma once

#include <chrono>
#include <optional>

#include "leases/lease_connection.hpp"
#include "shm/fd.hpp"
#include "worker/ending.hpp"

namespace orvaned {

// Decides when a worker ends: at SIGTERM (which must be blocked), when its lease's producer died or
// left, or when a queue that was used has been idle for too long.
class EndWatch {
 public:
  // `lease` is null for a queue with a fixed name. An `idleLimit` of 0 is no limit.
  EndWatch(LeaseConnection* lease, std::chrono::seconds idleLimit);

  // An EndWithin. A pause of 0 means that a batch has just been received.
  const Ending* within(std::chrono::microseconds pause);

 private:
  using Clock = std::chrono::steady_clock;

  bool isIdle(std::chrono::microseconds pause);

  LeaseConnection* const lease;
  const std::chrono::seconds idleLimit;
  const Ending idle;
  tool::Fd signals;
  const int producer;  // the pidfd of the lease's producer, or -1
  std::optional<Clock::time_point> lastBatch;
};

}  // namespace orvaned
