#pragma once

#include <optional>
#include <string>

#include "confinement_settings.hpp"

namespace orvaned {

// What a worker leaves of a queue pair in /dev/shm when it has died, its totals included. Only the
// names are touched here, never what is in the files.

// Throws std::runtime_error when something under one of the pair's names is another user's, or no
// file at all. The worker's user counts as this one.
void requireOwnPair(const std::string& queueName, std::optional<WorkerUser> worker = {});

// Is there anything under the pair's names?
bool pairExists(const std::string& queueName);

void removePair(const std::string& queueName);

// Is a file of this user the server's own? The worker's user counts as this one.
bool isOurs(uid_t user, std::optional<WorkerUser> worker);

}  // namespace orvaned
