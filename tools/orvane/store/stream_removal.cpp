#include "store/stream_removal.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "shm/fd.hpp"
#include "store_format/manifest_lines.hpp"
#include "store_format/removed_stream.hpp"

namespace tool {
namespace {

constexpr int kFolder = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

[[noreturn]] void fail(int error, const std::string& action, const std::string& path) {
  throw std::runtime_error(std::generic_category().message(error) + ": cannot " + action + " " +
                           path);
}

// Does the path still lead to this folder, and does it hold a stream that has ended?
bool isFinished(const Fd& folder, const std::string& path) {
  struct stat opened = {};
  struct stat named = {};
  struct stat manifest = {};
  return fstat(folder.get(), &opened) == 0 && lstat(path.c_str(), &named) == 0 &&
         opened.st_dev == named.st_dev && opened.st_ino == named.st_ino &&
         fstatat(folder.get(), kManifest, &manifest, AT_SYMLINK_NOFOLLOW) == 0;
}

// The names must be on the disk before the first file is removed: after a power cut, a stream must
// not be back under its name without that file.
void syncNames(const std::string& store) {
  const Fd folder(open(store.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (folder.get() < 0 || fsync(folder.get()) != 0) {
    fail(errno, "sync", store);
  }
}

}  // namespace

StreamRemoval::StreamRemoval(std::string store, std::vector<std::string> hidden)
    : store(std::move(store)), hidden(std::move(hidden)) {}

// A server locks the folder of each stream that it stores or finishes.
bool StreamRemoval::hide(const std::string& id) {
  const std::string path = store + "/" + id;
  const Fd folder(open(path.c_str(), kFolder));
  if (folder.get() < 0 && errno != ENOENT) {
    fail(errno, "remove", path);
  }
  if (folder.get() < 0 || flock(folder.get(), LOCK_EX | LOCK_NB) != 0 ||
      !isFinished(folder, path)) {
    return false;
  }
  const std::string name = removedFolderOf(id);
  const std::string to = store + "/" + name;
  if (renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) != 0) {
    fail(errno, "remove", path);
  }
  hidden.push_back(name);
  return true;
}

std::string StreamRemoval::finish() {
  std::string failure;
  if (hidden.empty()) {
    return failure;
  }
  syncNames(store);
  for (const std::string& name : std::exchange(hidden, {})) {
    try {
      removeFolder(store + "/" + name);
    } catch (const std::runtime_error& e) {
      failure += (failure.empty() ? "" : "; ") + std::string(e.what());
    }
  }
  return failure;
}

}  // namespace tool
