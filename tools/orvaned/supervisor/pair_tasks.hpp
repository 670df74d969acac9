#pragma once

#include <sys/types.h>

#include <string>

#include "leases/lease_connection.hpp"
#include "options.hpp"
#include "shm/fd.hpp"
#include "store/store_access.hpp"
#include "worker/heartbeat.hpp"

namespace orvaned {

// The tasks of the two processes that serve a queue pair, which `supervisor` has started.

// The task of a worker process: creates the queue pair, confines itself, and serves the pair until
// EndWatch ends it. The supervisor removes the pair's names later. `lease` is null for a fixed
// name; a lease's producer is sent the name of its pair, or the reason why there is none.
// `brokerSocket` is the socket to the process that opens its files, `ringTotals` the file for the
// totals of a ring. Returns the exit code: 0, or 1 after an error, which is logged. Any other
// exception passes through.
int runWorker(const Options& options, const std::string& queueName, LeaseConnection* lease,
              tool::Fd brokerSocket, tool::Fd ringTotals, pid_t supervisor, Heartbeat& heartbeat);

// The task of its broker process, until the worker and the process that finishes its stream have
// ended. If the supervisor has died by then, it removes the pair's names, because a producer would
// continue to send into a queue without a server.
int runBroker(const Options& options, const StreamOrigin& origin, tool::Fd worker,
              pid_t supervisor);

}  // namespace orvaned
