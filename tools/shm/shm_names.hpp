#pragma once

#include <array>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace tool {

// The folder of POSIX shared memory, and so of all queues. The server also has files of its own
// there. Their names begin with a dot, which no queue's name does.
constexpr char kShmFolder[] = "/dev/shm/";

// Returns the names of all files there, or none if the folder cannot be read.
std::set<std::string> namesInShm();

// Returns the name under which a queue is created. It gets the name that producers know only when
// it is complete, so no process finds a queue that is incomplete or open to the wrong user.
std::string privateNameOf(const std::string& queueName);

// The name and the path of the file with a pair's totals (totals.hpp).
std::string totalsNameOf(const std::string& queueName);
std::string totalsPathOf(const std::string& queueName);

// Returns the paths of all files that a pair may have, in the order in which they are removed. The
// send queue is the first, since a producer that finds it expects to find the response queue.
std::array<std::string, 5> pathsOfPair(const std::string& queueName);

// A leased queue is named RUN_RANDOM. RUN is "orvane-" with the server's start time and process;
// RANDOM are 16 random hexadecimal digits, so that no process can guess a lease's name and use it
// first. Earlier servers used RUN_NUMBER. isRun() checks a RUN; runOf() returns the RUN of a leased
// queue, and nothing for another queue.
bool isRun(const std::string& name);
std::optional<std::string> runOf(const std::string& queueName);

// Returns true if a queue of this name, or a file of that queue, could be mistaken for a lease's.
bool beginsAsLeased(const std::string& name);

// Returns the leased queues of a run, also those of which only some files are left.
std::vector<std::string> queuesOf(const std::string& run, const std::set<std::string>& names);

// Return the NAME in the name of a lock file, ".NAME.lock", or of a file of totals, ".NAME.stats".
std::optional<std::string> lockedBy(const std::string& fileName);
std::optional<std::string> countedBy(const std::string& fileName);

}  // namespace tool
