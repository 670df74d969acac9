#pragma once

namespace orvane::ring {

// The number of forks between this process and the one that loaded the library. Unlike getpid(), it
// costs no system call.
unsigned int forkCount();

}  // namespace orvane::ring
