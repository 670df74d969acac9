#include "supervisor/service_manager.hpp"

#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "shm/fd.hpp"

namespace orvaned {

ServiceManager::ServiceManager() {
  if (const char* name = std::getenv("NOTIFY_SOCKET")) {
    address = name;
    unsetenv("NOTIFY_SOCKET");
  }
}

void ServiceManager::notify(const std::string& state) const {
  sockaddr_un to = {};
  if (address.empty() || address.size() > sizeof(to.sun_path)) {
    return;
  }
  to.sun_family = AF_UNIX;
  std::memcpy(to.sun_path, address.data(), address.size());
  if (address.front() == '@') {
    to.sun_path[0] = '\0';  // a name outside the file system, which has no byte at its end
  }
  const tool::Fd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sendto(fd.get(), state.data(), state.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
         reinterpret_cast<const sockaddr*>(&to),
         static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address.size()));
}

}  // namespace orvaned
