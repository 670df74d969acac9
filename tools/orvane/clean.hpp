#pragma once

#include <string>
#include <vector>

namespace tool {

// Removes what servers that are gone left in /dev/shm, and prints what; only of these queues,
// unless there are none. With `dryRun`, prints what it would remove. Throws Failure.
void cleanUp(const std::vector<std::string>& queues, bool dryRun);

}  // namespace tool
