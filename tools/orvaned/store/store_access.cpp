#include "store/store_access.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <orvane/orvane.hpp>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "process_name.hpp"

namespace orvaned {

// By trying, with a file that never has a name: permissions alone do not tell of a read-only file
// system.
void checkWritable(const std::string& directory) {
  if (directory == kNullStore) {
    return;
  }
  const tool::Fd probe(open(directory.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600));
  if (probe.get() < 0 && errno != EOPNOTSUPP) {
    throw std::runtime_error(
        "cannot store into " + directory + ": " + std::generic_category().message(errno) +
        ": --store needs a folder that exists and that the server can write to");
  }
}

std::string unnamedFolderOf(const std::string& name) {
  return "." + name + ".new";
}

std::string outsideNameOf(const std::string& queue) {
  return queue + "-outside-records";
}

LocalAccess::LocalAccess(std::string storeDirectory, std::string queueName, Sync syncMode)
    : directory(std::move(storeDirectory)),
      queue(std::move(queueName)),
      sync(syncMode),
      idPrefix(timeAndProcess()) {}

StoreAccess::NewStream LocalAccess::createStream() {
  for (;;) {
    const std::string id = orvane::UniqueIdGenerator::getInstance().generateId(idPrefix);
    if (directory == kNullStore) {
      return {id, nullptr};
    }
    if (auto folder = makeFolder(queue + "-" + id)) {
      return {id, std::move(folder)};
    }
  }
}

// The folder gets its name when it is locked: nobody who looks for the unfinished streams of dead
// servers ever finds one of a living server without its lock. Nothing when the name is taken.
std::unique_ptr<LocalDirectory> LocalAccess::makeFolder(const std::string& name) const {
  const std::string path = directory + "/" + name;
  const std::string unnamed = directory + "/" + unnamedFolderOf(name);
  if (mkdir(unnamed.c_str(), 0700) != 0) {
    if (errno == EEXIST) {
      return nullptr;
    }
    throwStoreFailed(errno, "create", path);
  }
  auto folder = std::make_unique<LocalDirectory>(path, unnamed);
  if (folder->isOpen() && !folder->lock()) {
    return nullptr;  // somebody clears such folders away, which dead servers left
  }
  if (renameat2(AT_FDCWD, unnamed.c_str(), AT_FDCWD, path.c_str(), RENAME_NOREPLACE) != 0) {
    const int error = errno;
    rmdir(unnamed.c_str());
    if (error == EEXIST || error == ENOENT) {
      return nullptr;
    }
    throwStoreFailed(error, "create", path);
  }
  if (sync != Sync::none) {
    syncFolder(directory);
  }
  return folder;
}

// The store itself may be named by a link.
std::unique_ptr<StreamDirectory> LocalAccess::outside() {
  return directory == kNullStore ? nullptr
                                 : std::make_unique<LocalDirectory>(directory, directory + "/.");
}

}  // namespace orvaned
