#pragma once

#include <cstdint>

namespace orvaned {

// What a version of Landlock (its "ABI") can forbid. A kernel refuses bits that it does not know.
struct LandlockRights {
  std::uint64_t files;
  std::uint64_t network;
  std::uint64_t scopes;
};

LandlockRights landlockRights(int version);

// The version that this kernel has; 0: it has none, or has it switched off. Throws
// std::system_error when the call is refused.
int landlockVersion();

// Forbids this process all that `version` can forbid, except to open `allowedFile`, as for
// dropRights(). With version 0 it does nothing. Throws std::system_error.
void forbidPaths(int version, int allowedFile);

}  // namespace orvaned
