#pragma once

#include <string>
#include <vector>

#include "shm/fd.hpp"

namespace tool {

// A ring that a server serves, and the file of its totals, which can only be read.
struct ServedRing {
  std::string name;
  Fd totals;
};

// Asks the server at a socket for its rings that this user may see; returns them in the order of
// their names. Throws Failure if there is no server, or if it does not answer within 5 seconds.
std::vector<ServedRing> ringsServedAt(const std::string& socketPath);

}  // namespace tool
