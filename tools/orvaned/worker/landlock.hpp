#pragma once

#include <cstdint>

namespace orvaned {

// The rights that a version of Landlock (its "ABI") can forbid. A kernel refuses unknown bits.
struct LandlockRights {
  std::uint64_t files;
  std::uint64_t network;
  std::uint64_t scopes;
};

LandlockRights landlockRights(int version);

// This kernel's version of Landlock; 0: the kernel has none, or it is switched off. Throws
// std::system_error when the call is refused.
int landlockVersion();

// Forbids this process everything that `version` can forbid, except opening `allowedFile` (see
// dropRights()). Version 0 forbids nothing. Throws std::system_error.
void forbidPaths(int version, int allowedFile);

}  // namespace orvaned
