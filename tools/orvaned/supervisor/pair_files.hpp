#pragma once

#include <optional>
#include <string>

#include "confinement_settings.hpp"

namespace orvaned {

// The files of a queue pair, with its totals, that a dead worker left in /dev/shm. Only the names
// are used here, never the content.

// Throws std::runtime_error if one of the pair's names is that of another user's file, or not of a
// regular file. The worker's user counts as this one.
void requireOwnPair(const std::string& queueName, std::optional<WorkerUser> worker = {});

// Does any of the pair's names exist?
bool pairExists(const std::string& queueName);

void removePair(const std::string& queueName);

// Is a file of this user the server's own? The worker's user counts as this one.
bool isOurs(uid_t user, std::optional<WorkerUser> worker);

}  // namespace orvaned
