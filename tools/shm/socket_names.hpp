#pragma once

#include <string>

namespace tool {

// The files beside the socket at which a server leases queues: the lock of its server, and the name
// under which the socket is made, before anybody can find it.
std::string lockPathOfSocket(const std::string& path);
std::string newPathOfSocket(const std::string& path);

}  // namespace tool
