#pragma once

#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>

namespace orvane::test {

// While it lives, no file may grow past `bytes`: a full disk for tests that may not mount one.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) : handlerBefore(std::signal(SIGXFSZ, SIG_IGN)) {
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit limit{bytes, before.rlim_max};
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0) {
      throw std::runtime_error("cannot set the file size limit");
    }
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &before);
    std::signal(SIGXFSZ, handlerBefore);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;

 private:
  void (*handlerBefore)(int);
  rlimit before = {};
};

// While it lives, file permissions apply to this process even when it runs as root.
class WithoutPrivileges {
 public:
  WithoutPrivileges() {
    if (isRoot && seteuid(kNobody) != 0) {
      throw std::runtime_error("cannot drop privileges");
    }
  }
  ~WithoutPrivileges() {
    if (isRoot && seteuid(0) != 0) {
      std::abort();
    }
  }
  WithoutPrivileges(const WithoutPrivileges&) = delete;
  WithoutPrivileges& operator=(const WithoutPrivileges&) = delete;

 private:
  static constexpr uid_t kNobody = 65534;
  const bool isRoot = geteuid() == 0;
};

}  // namespace orvane::test
