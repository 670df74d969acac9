#pragma once

#include <chrono>
#include <optional>

#include "leases/lease_connection.hpp"
#include "shm/fd.hpp"
#include "worker/ending.hpp"

namespace orvaned {

// Tells a worker when to end: at SIGTERM (which must be blocked), when its lease's producer died or
// left, or when a queue that was used has been idle for too long.
class EndWatch {
 public:
  // Without a lease for a null pointer; without a limit for 0.
  EndWatch(LeaseConnection* lease, std::chrono::seconds idleLimit);

  // An EndWithin. A pause of 0 is one behind a batch.
  const Ending* within(std::chrono::microseconds pause);

 private:
  using Clock = std::chrono::steady_clock;

  bool isIdle(std::chrono::microseconds pause);

  LeaseConnection* const lease;
  const std::chrono::seconds idleLimit;
  const Ending idle;
  tool::Fd signals;
  const int producer;  // the connection's
  std::optional<Clock::time_point> lastBatch;
};

}  // namespace orvaned
