#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "support/eventually.hpp"

// What other processes are at.
namespace orvane::test {

// A process's state, as /proc has it: 'T' is stopped; 0 when it is gone.
char stateOf(pid_t process);

// The number of the system call that it waits in; -1 when it runs or is gone.
long systemCallOf(pid_t process);

// Stops it, as SIGSTOP does.
void stop(pid_t process);

// What is in /dev/shm of a queue pair, its private names, its lock and its totals included.
std::vector<std::string> sharedMemoryOf(const std::string& queue);

}  // namespace orvane::test
