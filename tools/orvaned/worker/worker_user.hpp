#pragma once

#include <optional>
#include <string>

#include "confinement_settings.hpp"

namespace orvaned {

struct WorkerUserChoice {
  std::optional<WorkerUser> user;  // nothing: the server's own
  std::string warning;             // empty: none
};

// The user that workers run as. `name` is the value of --worker-user, or empty. Only a server that
// runs as root has a choice; its default is the user orvaned, or 65534 if there is no such user.
// Throws std::invalid_argument.
WorkerUserChoice chooseWorkerUser(const std::string& name);

}  // namespace orvaned
