#pragma once

#include <string>
#include <vector>

namespace tool {

// Returns the names of this machine's queues that have a response queue, sorted.
std::vector<std::string> queuesHere();

// Returns true if a server can give the name to a pair. Only such names are safe on a terminal.
bool mayBeQueue(const std::string& name);

// Throws Failure unless the name is valid for a queue, or for one that a user chooses.
void requireQueueName(const std::string& name);
void requireFixedQueueName(const std::string& name);

// Returns the error message for a queue that does not exist.
std::string noSuchQueue(const std::string& name);

}  // namespace tool
