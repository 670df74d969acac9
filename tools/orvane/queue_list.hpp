#pragma once

#include <string>
#include <vector>

namespace tool {

// Where POSIX shared memory, and so every queue, has its names.
constexpr char kShmFolder[] = "/dev/shm/";

// The queues of this machine that have a response queue beside them, sorted.
std::vector<std::string> queuesHere();

}  // namespace tool
