#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "shm/fd.hpp"
#include "shm/lock_file.hpp"

namespace orvaned {

// The Unix socket at which producers ask for leases. Removed with this object, and replaced when a
// dead server left it.
class LeaseSocket {
 public:
  // Throws std::runtime_error when another server listens there, something else has that name, or
  // the system refuses.
  LeaseSocket(const std::string& path, mode_t mode);
  ~LeaseSocket();
  LeaseSocket(const LeaseSocket&) = delete;
  LeaseSocket& operator=(const LeaseSocket&) = delete;

  // The next connection, if there is one.
  tool::Fd accept() const;

  int fd() const { return listening.get(); }
  int lockFile() const { return lock.file(); }

 private:
  const std::string path;
  const tool::LockFile lock;
  tool::Fd listening;
};

}  // namespace orvaned
