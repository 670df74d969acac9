#pragma once

#include <string>

namespace orvaned {

// What a dead worker left of a queue pair in /dev/shm, its totals included. Only its names are
// touched here, never the queues behind them, except in postFarewell().

// Throws std::runtime_error when something under one of the pair's names is another user's, or no
// file at all.
void requireOwnPair(const std::string& queueName);

// Is there anything under the pair's names?
bool pairExists(const std::string& queueName);

void removePair(const std::string& queueName);

// Tells a producer that still uses the pair why it is removed (kWorkerDied). Waits for nobody for
// long, but a hostile or broken queue can crash or hang whoever calls this: call it in a process of
// its own.
void postFarewell(const std::string& queueName, const std::string& reason);

}  // namespace orvaned
