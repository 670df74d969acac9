#pragma once

#include <string>

namespace tool {

// Two paths beside the socket at which a server leases queues: the server's lock file, and the path
// at which the socket is created before it gets its own path.
std::string lockPathOfSocket(const std::string& path);
std::string newPathOfSocket(const std::string& path);

}  // namespace tool
