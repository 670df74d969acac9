#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "shm/fd.hpp"
#include "shm/lock_file.hpp"

namespace orvaned {

// The Unix socket at which producers ask for leases. It is removed with this object; the socket of
// a dead server is replaced.
class LeaseSocket {
 public:
  // Throws std::runtime_error if another server listens there, a file of another type has that
  // name, or the system refuses.
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
