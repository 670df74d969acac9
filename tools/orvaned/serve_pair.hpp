#pragma once

#include <string>

#include "heartbeat.hpp"
#include "lease_connection.hpp"
#include "options.hpp"

namespace orvaned {

// What a worker process does: makes the queue pair, serves it until EndWatch says that it is over,
// and removes it. A null pointer stands for a fixed name; a lease's producer gets a pair of its own
// and is told its name, or why there is none. Returns the exit code: 0, or 1 after an error, which
// is logged.
int servePair(const Options& options, const std::string& queueName, LeaseConnection* lease,
              Heartbeat& heartbeat);

}  // namespace orvaned
