#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "support/served.hpp"

// What other processes do takes its time; a test waits for it, and for no longer than this.
namespace orvane::test {

constexpr int kPatienceMilliseconds = 30000;

bool eventually(const std::function<bool()>& condition);

// The next answer.
Answer awaitAnswer(boost::interprocess::message_queue& answers);

// A process's state, as /proc has it: 'T' is stopped; 0 when it is gone.
char stateOf(pid_t process);

// The number of the system call that it waits in; -1 when it runs or is gone.
long systemCallOf(pid_t process);

// Stops it, as SIGSTOP does.
void stop(pid_t process);

// What is in /dev/shm of a queue pair, its private names, its lock and its totals included.
std::vector<std::string> sharedMemoryOf(const std::string& queue);

}  // namespace orvane::test
