#include "shm/lock_file.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include "shm/shm_names.hpp"

namespace tool {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kLongestWait{5};
constexpr std::chrono::milliseconds kBetweenTries{20};

[[noreturn]] void fail(const std::string& path, int error) {
  throw std::runtime_error("cannot lock " + path + ": " + std::generic_category().message(error));
}

Fd openFile(const std::string& path, int flags) {
  Fd fd(open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC | flags, 0600));
  if (fd.get() < 0 && (errno != ENOENT || (flags & O_CREAT) != 0)) {
    fail(path, errno);
  }
  return fd;
}

// Returns false if the owner removed the file after it was opened here.
bool isAt(const std::string& path, const Fd& fd) {
  struct stat opened = {};
  struct stat named = {};
  return fstat(fd.get(), &opened) == 0 && lstat(path.c_str(), &named) == 0 &&
         opened.st_ino == named.st_ino && opened.st_dev == named.st_dev;
}

bool tryLock(const std::string& path, const Fd& fd) {
  if (flock(fd.get(), LOCK_EX | LOCK_NB) == 0) {
    return true;
  }
  if (errno != EWOULDBLOCK) {
    fail(path, errno);
  }
  return false;
}

bool belongsTo(uid_t user, const Fd& fd) {
  struct stat status = {};
  return fstat(fd.get(), &status) == 0 && status.st_uid == user;
}

pid_t holderOf(const Fd& fd) {
  char text[32] = {};
  return pread(fd.get(), text, sizeof(text) - 1, 0) > 0 ? std::atoi(text) : 0;
}

bool isDead(pid_t process) {
  return process > 0 && kill(process, 0) != 0 && errno == ESRCH;
}

bool writeOwner(const Fd& fd) {
  const std::string owner = std::to_string(getpid()) + "\n";
  return ftruncate(fd.get(), 0) == 0 && pwrite(fd.get(), owner.data(), owner.size(), 0) >= 0;
}

}  // namespace

LockFile::LockFile(const std::string& path) : path(path) {
  const auto deadline = Clock::now() + kLongestWait;
  for (;;) {
    fd = openFile(path, O_CREAT);
    if (!belongsTo(geteuid(), fd)) {
      throw std::runtime_error("cannot lock " + path +
                               ": it belongs to another user: remove it, or take another name");
    }
    if (!tryLock(path, fd)) {
      const pid_t holder = holderOf(fd);
      if ((holder != 0 && !isDead(holder)) || Clock::now() >= deadline) {
        throw std::runtime_error("another orvaned, process " + std::to_string(holder) + ", holds " +
                                 path);
      }
      std::this_thread::sleep_for(kBetweenTries);
    } else if (isAt(path, fd)) {
      break;
    }
  }
  if (!writeOwner(fd)) {
    const int error = errno;
    unlink(path.c_str());
    fail(path, error);
  }
}

// The file gets its name last. Without /proc, it is made as any other.
LockFile LockFile::ofNewName(const std::string& path) {
  const std::string folder = path.substr(0, path.rfind('/'));
  Fd fd(open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, S_IRUSR | S_IWUSR));
  const std::string unnamed = "/proc/self/fd/" + std::to_string(fd.get());
  if (fd.get() >= 0 && tryLock(path, fd) && writeOwner(fd) &&
      linkat(AT_FDCWD, unnamed.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW) == 0) {
    return {path, std::move(fd)};
  }
  return LockFile(path);
}

std::optional<LockFile> LockFile::takeOver(const std::string& path, uid_t user) {
  Fd fd = openFile(path, 0);
  if (fd.get() < 0 || !belongsTo(user, fd) || !tryLock(path, fd) || !isAt(path, fd) ||
      ftruncate(fd.get(), 0) != 0) {
    return std::nullopt;
  }
  return LockFile(path, std::move(fd));
}

LockFile::OwnerState LockFile::ownerOf(const std::string& path, uid_t user) {
  const Fd fd = openFile(path, 0);
  if (fd.get() >= 0 && !belongsTo(user, fd)) {
    return OwnerState::alive;
  }
  if (fd.get() < 0 || tryLock(path, fd)) {
    return OwnerState::dead;
  }
  const pid_t holder = holderOf(fd);
  return holder == 0 ? OwnerState::dead : isDead(holder) ? OwnerState::dying : OwnerState::alive;
}

LockFile::~LockFile() {
  if (fd.get() >= 0) {
    unlink(path.c_str());
  }
}

std::string lockPathOf(const std::string& name) {
  return std::string(kShmFolder) + "." + name + ".lock";
}

std::string lockPathOfSocket(const std::string& path) {
  return path + ".lock";
}

// The name is cut, because the server binds it through a path in /proc, and a socket's address has
// little room.
std::string newPathOfSocket(const std::string& path) {
  constexpr std::size_t kLongest = 64;
  const std::filesystem::path whole(path);
  const std::string name = whole.filename();
  return whole.parent_path() / ("." + name.substr(0, kLongest) + ".new");
}

}  // namespace tool
