#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <optional>
#include <string>

#include "shm/fd.hpp"

namespace tool {

// A file that is locked while its owner lives. The system releases the lock when the owner and all
// processes that it forked have ended in any way. The file holds the owner's process number, and is
// removed with this object.
class LockFile {
 public:
  // Throws std::runtime_error if another process holds the lock, or if the file belongs to another
  // user. If the owner is dead and only processes that it forked hold the lock, it waits some
  // seconds for their end.
  explicit LockFile(const std::string& path);

  // Makes a file of a name that no other process uses. It is locked before it can be found, so that
  // nobody takes it for a dead owner's, and this does not wait. Throws std::runtime_error.
  static LockFile ofNewName(const std::string& path);

  // Locks the file of a dead owner; the file then holds no process number. Returns nothing if there
  // is no such file, if it is locked, or if it does not belong to `user`. Throws std::runtime_error
  // if the file cannot be opened, as ownerOf does.
  static std::optional<LockFile> takeOver(const std::string& path, uid_t user = geteuid());

  enum class OwnerState {
    alive,  // also if the file belongs to another user, so that its owner is not known
    dying,  // dead, but a process that it forked is alive
    dead    // dead with all processes that it forked, so that another one may clean up
  };
  static OwnerState ownerOf(const std::string& path, uid_t user = geteuid());

  LockFile(LockFile&&) = default;
  LockFile& operator=(LockFile&&) = delete;
  ~LockFile();

  // Returns the descriptor; each process that inherits it holds the lock, too.
  int file() const { return fd.get(); }

 private:
  LockFile(const std::string& path, Fd fd) : path(path), fd(std::move(fd)) {}

  std::string path;
  Fd fd;
};

// Returns the path of the lock of a fixed queue name, or of all leases of one server. The name of
// the file begins with a dot, which no queue's name does.
std::string lockPathOf(const std::string& name);

// Two paths beside the socket at which a server leases queues: the server's lock file, and the path
// at which the socket is created before it gets its own path.
std::string lockPathOfSocket(const std::string& path);
std::string newPathOfSocket(const std::string& path);

}  // namespace tool
