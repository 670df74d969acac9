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

#include "shm/utc.hpp"
#include "store_format/stream_id.hpp"

namespace orvaned {

// Creates a file without a name as a trial: permissions alone do not show a read-only file system.
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

LocalAccess::LocalAccess(std::string directory, StreamOrigin origin, Sync sync)
    : directory(std::move(directory)),
      origin(std::move(origin)),
      sync(sync),
      process("-" + std::to_string(getpid())) {}

StoreAccess::NewStream LocalAccess::createStream() {
  const std::string& name = origin.name.empty() ? origin.queue : origin.name;
  for (;;) {
    const tool::UtcTime now = tool::utcNow();
    const std::string stream =
        orvane::UniqueIdGenerator::getInstance().generateId(tool::utcTextForNames(now) + process);
    const tool::StreamHead head = {.queue = origin.queue,
                                   .stream = stream,
                                   .producer = origin.producer,
                                   .label = origin.label,
                                   .begun = now};
    if (directory == kNullStore) {
      return {head, nullptr};
    }
    if (auto folder = makeFolder(tool::streamId(name, origin.label, stream))) {
      return {head, std::move(folder)};
    }
  }
}

// The folder gets its name after it is locked: a search for the unfinished streams of dead servers
// never finds a living server's stream without its lock. Returns nothing if the name is in use.
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
    return nullptr;  // another server is removing it, as one that a dead server left
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

// The path of the store may be a symbolic link, which the "/." follows.
std::unique_ptr<StreamDirectory> LocalAccess::outside() {
  return directory == kNullStore ? nullptr
                                 : std::make_unique<LocalDirectory>(directory, directory + "/.");
}

}  // namespace orvaned
