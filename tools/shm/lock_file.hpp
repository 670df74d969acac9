#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <optional>
#include <string>

#include "shm/fd.hpp"

namespace tool {

// A file that is locked while its owner lives: the system lets go of the lock when the process and
// all that it forked have ended, however they ended. It holds the owner's process number. Removed
// with this object.
class LockFile {
 public:
  // Throws std::runtime_error when somebody else holds it, or the file is another user's. When the
  // owner is dead and only its forked children still hold it, waits some seconds for their end.
  explicit LockFile(std::string path);

  // The lock of an owner that is dead; the file names none from then on. Nothing when there is no
  // such file, when it is held, or when it is not this user's. Throws std::runtime_error when the
  // file cannot be opened, as ownerOf does.
  static std::optional<LockFile> takeOver(const std::string& path, uid_t user = geteuid());

  enum class Owner {
    alive,  // or not this user's, which is not for us to say
    dying,  // dead, but not all that it forked
    dead    // with all that it forked; somebody may clean up after it
  };
  static Owner ownerOf(const std::string& path, uid_t user = geteuid());

  LockFile(LockFile&&) = default;
  LockFile& operator=(LockFile&&) = delete;
  ~LockFile();

  // Its descriptor: whoever inherits it keeps the lock as well.
  int file() const { return fd.get(); }

 private:
  LockFile(std::string lockPath, Fd lockFd) : path(std::move(lockPath)), fd(std::move(lockFd)) {}

  std::string path;
  Fd fd;
};

// The lock of a fixed queue name, or of all leases of one server. A leading dot keeps it apart from
// the queues, whose names have none.
std::string lockPathOf(const std::string& name);

}  // namespace tool
