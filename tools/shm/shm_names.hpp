#pragma once

#include <array>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace tool {

// Where POSIX shared memory, and so every queue, has its names. Besides a pair's two queues the
// server has names of its own there. They begin with a dot, which no queue's name does.
constexpr char kShmFolder[] = "/dev/shm/";

// What is there now; nothing where the folder cannot be read.
std::set<std::string> namesInShm();

// Under this name a queue is created, before it gets the name under which a producer finds it:
// nobody ever sees one that is half made or open to the wrong user.
std::string privateNameOf(const std::string& queueName);

// The file of a pair's totals (queue_stats.hpp): its name, and its path.
std::string statsNameOf(const std::string& queueName);
std::string statsPathOf(const std::string& queueName);

// All that a pair may have there, in the order in which it goes: the send queue first, since a
// producer that finds it expects to find the other.
std::array<std::string, 5> pathsOfPair(const std::string& queueName);

// Leased queues are named RUN_RANDOM, where RUN is "orvane-" and the server's start time and
// process, and RANDOM are 16 random hexadecimal digits: nobody can foretell a lease's name, and
// take it first. Earlier servers counted: RUN_NUMBER. Is this such a RUN? Which one is a queue
// named after, if any?
bool isRun(const std::string& name);
std::optional<std::string> runOf(const std::string& queueName);

// May this name not be given to a queue, since it, or a file of its, could be taken for a lease's?
bool beginsAsLeased(const std::string& name);

// The queues that are named after a run; also those of which only a part is left.
std::vector<std::string> queuesOf(const std::string& run, const std::set<std::string>& names);

// The NAME in the name of a lock file, ".NAME.lock", or of a file of totals, ".NAME.stats".
std::optional<std::string> lockedBy(const std::string& fileName);
std::optional<std::string> countedBy(const std::string& fileName);

}  // namespace tool
