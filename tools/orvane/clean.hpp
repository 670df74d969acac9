#pragma once

#include <string>
#include <vector>

namespace tool {

// Removes what servers that are gone left in /dev/shm, and their sockets below /run/orvaned, and
// prints what; only of these queues and sockets (a folder stands for all below it), unless there
// are none. With `dryRun`, prints what it would remove. Throws Failure.
void cleanUp(const std::vector<std::string>& queues, const std::vector<std::string>& sockets,
             bool dryRun);

}  // namespace tool
