#pragma once

#include <sys/types.h>

#include <string>

#include "leases/lease_connection.hpp"
#include "options.hpp"
#include "shm/fd.hpp"
#include "worker/heartbeat.hpp"

namespace orvaned {

// The two processes that serve a queue pair. `supervisor` is the process that started them.

// What a worker process does: makes the queue pair, confines itself, and serves the pair until
// EndWatch says that it is over. The pair's names are left to be removed. A null pointer stands for
// a fixed name; a lease's producer gets a pair of its own and is told its name, or why there is
// none. `broker` is the socket to the process that opens its files. Returns the exit code: 0, or 1
// after an error, which is logged. Any other exception passes through.
int servePair(const Options& options, const std::string& queueName, LeaseConnection* lease,
              tool::Fd broker, pid_t supervisor, Heartbeat& heartbeat);

// What its broker process does, until the worker and whoever goes on after it have ended. When the
// supervisor has died by then, it removes the pair's names: into a queue without a server, a
// producer would go on sending.
int serveWorker(const Options& options, const std::string& queueName, tool::Fd worker,
                pid_t supervisor);

}  // namespace orvaned
