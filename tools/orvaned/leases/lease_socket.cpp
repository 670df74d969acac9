#include "leases/lease_socket.hpp"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace orvaned {
namespace {

constexpr int kBacklog = 128;

[[noreturn]] void fail(const std::string& path, const std::string& reason) {
  throw std::runtime_error("cannot listen at " + path + ": " + reason);
}

[[noreturn]] void failWithErrno(const std::string& path) {
  fail(path, std::generic_category().message(errno));
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

// To be called with the lock: the server of an existing socket is dead, so it may be replaced.
void requireNothingButASocket(const std::string& path) {
  struct stat status = {};
  if (lstat(path.c_str(), &status) == 0 && !S_ISSOCK(status.st_mode)) {
    fail(path, "it is there and is no socket: take another path");
  }
}

tool::Fd openFolderOf(const std::string& path) {
  const auto folder = std::filesystem::path(path).parent_path();
  tool::Fd fd(open(folder.empty() ? "." : folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (fd.get() < 0) {
    failWithErrno(path);
  }
  return fd;
}

// A new socket that is bound to `name` in `folder`. The path through /proc is short: a socket's
// address has little room, and the folder's path may be long.
tool::Fd bindIn(const tool::Fd& folder, const std::string& name, const std::string& path) {
  tool::Fd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (fd.get() < 0) {
    failWithErrno(path);
  }
  const sockaddr_un address =
      addressOf("/proc/self/fd/" + std::to_string(folder.get()) + "/" + name);
  if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    failWithErrno(path);
  }
  return fd;
}

}  // namespace

// The socket gets its name after it listens, so every client that finds it is served.
LeaseSocket::LeaseSocket(const std::string& path, mode_t mode)
    : path(path), lock(tool::lockPathOfSocket(path)) {
  addressOf(path);  // a client must be able to name it
  requireNothingButASocket(path);
  const tool::Fd folder = openFolderOf(path);
  const std::string madeAs = tool::newPathOfSocket(path);
  unlink(madeAs.c_str());  // left by a server that died at this point
  listening = bindIn(folder, std::filesystem::path(madeAs).filename(), path);
  if (chmod(madeAs.c_str(), mode) != 0 || listen(listening.get(), kBacklog) != 0 ||
      rename(madeAs.c_str(), path.c_str()) != 0) {
    const int error = errno;
    unlink(madeAs.c_str());
    errno = error;
    failWithErrno(path);
  }
}

LeaseSocket::~LeaseSocket() {
  unlink(path.c_str());
}

tool::Fd LeaseSocket::accept() const {
  return tool::Fd(accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
}

}  // namespace orvaned
