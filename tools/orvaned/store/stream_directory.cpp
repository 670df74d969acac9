#include "store/stream_directory.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <orvane/orvane.hpp>
#include <orvane/server_status.hpp>
#include <string_view>
#include <system_error>
#include <utility>

namespace orvaned {
namespace {

constexpr mode_t kOwnerOnly = 0600;

// O_NONBLOCK: a FIFO in place of the file must not block the process that opens it.
constexpr int kSafely = O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

}  // namespace

void throwStoreFailed(int error, const std::string& action, const std::string& path) {
  throw Ox_ErrnoException(
      orvane::kStoreFailed,
      std::generic_category().message(error) + ": cannot " + action + " " + path, "");
}

void syncFolder(const std::string& path) {
  const tool::Fd folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (folder.get() < 0 || ::fsync(folder.get()) != 0) {
    throwStoreFailed(errno, "sync", path);
  }
}

LocalDirectory::LocalDirectory(const std::string& folderPath)
    : LocalDirectory(folderPath, folderPath) {}

LocalDirectory::LocalDirectory(std::string folderPath, const std::string& madeAt)
    : StreamDirectory(std::move(folderPath)),
      folderFd(::open(madeAt.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)),
      openError(folderFd.get() < 0 ? errno : 0) {}

bool LocalDirectory::lock() {
  return folderFd.get() >= 0 && ::flock(folderFd.get(), LOCK_EX | LOCK_NB) == 0;
}

tool::Fd LocalDirectory::append(const std::string& name) {
  return open(name, O_WRONLY | O_CREAT | O_APPEND, "create");
}

tool::Fd LocalDirectory::read(const std::string& name) {
  return open(name, O_RDONLY, "read");
}

void LocalDirectory::truncate(const std::string& name, std::uint64_t size) {
  const tool::Fd file = open(name, O_WRONLY, "write");
  if (::ftruncate(file.get(), static_cast<off_t>(size)) != 0) {
    fail("write", name, errno);
  }
}

void LocalDirectory::remove(const std::string& name) {
  if (::unlinkat(folderFd.get(), name.c_str(), 0) != 0) {
    fail("remove", name, errno);
  }
}

void LocalDirectory::rename(const std::string& from, const std::string& to) {
  if (::renameat(folderFd.get(), from.c_str(), folderFd.get(), to.c_str()) != 0) {
    fail("rename", from, errno);
  }
}

void LocalDirectory::sync() {
  if (::fsync(folderFd.get()) != 0) {
    throwStoreFailed(openError != 0 ? openError : errno, "sync", path());
  }
}

std::vector<std::string> LocalDirectory::names() {
  const int again = ::openat(folderFd.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const std::unique_ptr<DIR, int (*)(DIR*)> entries(again < 0 ? nullptr : ::fdopendir(again),
                                                    ::closedir);
  if (!entries) {
    throwStoreFailed(openError != 0 ? openError : errno, "list", path());
  }
  std::vector<std::string> found;
  while (const dirent* entry = ::readdir(entries.get())) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") {
      found.emplace_back(name);
    }
  }
  return found;
}

tool::Fd LocalDirectory::open(const std::string& name, int flags, const char* action) const {
  tool::Fd file(::openat(folderFd.get(), name.c_str(), flags | kSafely, kOwnerOnly));
  struct stat status = {};
  if (file.get() < 0 || ::fstat(file.get(), &status) != 0) {
    fail(action, name, errno);
  }
  if (!S_ISREG(status.st_mode)) {
    fail(action, name, EINVAL);
  }
  return file;
}

void LocalDirectory::fail(const char* action, const std::string& name, int error) const {
  throwStoreFailed(openError != 0 ? openError : error, action, pathOf(name));
}

}  // namespace orvaned
