#pragma once

#include <sys/types.h>

#include <optional>

namespace orvaned {

struct WorkerUser {
  uid_t user;
  gid_t group;
};

// The rights that a worker gives up. A member is false if `--without` names it.
struct Confinement {
  bool capabilities = true;        // capset
  bool landlock = true;            // landlock
  bool seccomp = true;             // seccomp
  std::optional<WorkerUser> user;  // by default, the server's own user
};

}  // namespace orvaned
