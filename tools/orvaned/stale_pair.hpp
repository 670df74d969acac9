#pragma once

#include <sys/types.h>

#include <atomic>
#include <optional>
#include <string>

#include "worker/confinement.hpp"

namespace orvaned {

// What a dead worker left of a queue pair in /dev/shm, its totals included. Only its names are
// touched here, never the queues behind them, except in postNotice().

// Throws std::runtime_error when something under one of the pair's names is another user's, or no
// file at all. The worker's user counts as this one.
void requireOwnPair(const std::string& queueName, std::optional<WorkerUser> worker = {});

// Is there anything under the pair's names?
bool pairExists(const std::string& queueName);

void removePair(const std::string& queueName);

// Tells a producer that still uses the pair why it is removed (kWorkerDied). The response queue is
// opened only when it is a file of this user, of the worker's or of `producersUser`; where this
// process may give files away, it takes the queue first. Waits for nobody for long, but a hostile
// or broken queue can crash or hang whoever calls this: the process is confined as a worker is, for
// good, and may open that one file.
void postNotice(const std::string& queueName, const std::string& reason,
                std::optional<uid_t> producersUser, const Confinement& confinement, pid_t parent,
                std::atomic<int>* refusedCall);

}  // namespace orvaned
