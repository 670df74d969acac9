#include "store.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "fd.hpp"
#include "process_name.hpp"

namespace orvaned {
// By trying, with a file that never has a name: permissions alone do not tell of a read-only file
// system.
void checkWritable(const std::string& directory) {
  if (directory == kNullStore) {
    return;
  }
  const Fd probe(open(directory.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600));
  if (probe.get() < 0 && errno != EOPNOTSUPP) {
    throw std::runtime_error(
        "cannot store into " + directory + ": " + std::generic_category().message(errno) +
        ": --store needs a folder that exists and that the server can write to");
  }
}

Store::Store(std::string storeDirectory, std::string queueName, Sync syncMode)
    : directory(std::move(storeDirectory)),
      queue(std::move(queueName)),
      sync(syncMode),
      idPrefix(timeAndProcess()) {
  checkWritable(directory);
}

std::unique_ptr<StreamFolder> Store::createStream() {
  for (;;) {
    const std::string id = nextStreamId();
    const std::string path = directory + "/" + queue + "-" + id;
    if (directory == kNullStore) {
      return std::make_unique<StreamFolder>(path, queue, id, sync);
    }
    if (mkdir(path.c_str(), 0700) == 0) {
      if (sync != Sync::none) {
        syncFolder(directory);
      }
      return std::make_unique<StreamFolder>(path, queue, id, sync);
    }
    if (errno != EEXIST) {
      throwStoreFailed(errno, "create", path);
    }
  }
}

void Store::storeOutside(const orvane::ShmBatch::Entry& entry) {
  if (!outside) {
    outside = std::make_unique<OutputFile>(directory + "/" + queue + "-outside-records", sync);
  }
  appendRecord(*outside, entry);
}

void Store::flush() {
  // Closed after each batch, so that the next one notices when the file or the folder is gone.
  if (const auto file = std::move(outside)) {
    file->flush();
  }
}

std::string Store::nextStreamId() {
  return orvane::UniqueIdGenerator::getInstance().generateId(idPrefix);
}

}  // namespace orvaned
