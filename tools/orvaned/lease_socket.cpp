#include "lease_socket.hpp"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace orvaned {
namespace {

constexpr int kBacklog = 128;

[[noreturn]] void fail(const std::string& path, const std::string& reason) {
  throw std::runtime_error("cannot listen at " + path + ": " + reason);
}

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof(address.sun_path)) {
    fail(path, "a socket's path has 1 to " + std::to_string(sizeof(address.sun_path) - 1) +
                   " bytes: use a shorter one");
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

// To be called with the lock: whoever made the socket is dead.
void removeDeadSocket(const std::string& path) {
  struct stat status = {};
  if (lstat(path.c_str(), &status) != 0) {
    return;
  }
  if (!S_ISSOCK(status.st_mode)) {
    fail(path, "it is there and is no socket: take another path");
  }
  unlink(path.c_str());
}

}  // namespace

LeaseSocket::LeaseSocket(const std::string& socketPath, mode_t mode)
    : path(socketPath), lock(path + ".lock") {
  const sockaddr_un address = addressOf(path);
  removeDeadSocket(path);
  listening = Fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  // Before anybody can connect.
  const mode_t before = umask(0777);
  const int bound =
      bind(listening.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  const int error = errno;
  umask(before);
  if (bound != 0) {
    fail(path, std::generic_category().message(error));
  }
  if (chmod(path.c_str(), mode) != 0 || listen(listening.get(), kBacklog) != 0) {
    const std::string reason = std::generic_category().message(errno);
    unlink(path.c_str());
    fail(path, reason);
  }
}

LeaseSocket::~LeaseSocket() {
  unlink(path.c_str());
}

Fd LeaseSocket::accept() const {
  return Fd(accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
}

}  // namespace orvaned
