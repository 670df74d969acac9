#include "leases/lease_run.hpp"

#include <sys/random.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <optional>
#include <stdexcept>
#include <system_error>

#include "shm/shm_names.hpp"
#include "shm/utc.hpp"

namespace orvaned {
namespace {

// 64 bits that no other program can predict.
std::string randomDigits() {
  std::uint64_t number = 0;
  while (getrandom(&number, sizeof(number), 0) != sizeof(number)) {
    if (errno != EINTR) {
      throw std::runtime_error("no random name for a queue: " +
                               std::generic_category().message(errno));
    }
  }
  char digits[17] = {};
  std::snprintf(digits, sizeof(digits), "%016" PRIx64, number);
  return digits;
}

// Does any file have one of the pair's names? It is not opened, because it is not this server's.
bool isUsed(const std::string& queue) {
  const auto paths = tool::pathsOfPair(queue);
  return std::any_of(paths.begin(), paths.end(), [](const std::string& path) {
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0;
  });
}

// The runs that have a lock file.
std::vector<std::string> runsInShm() {
  std::vector<std::string> runs;
  for (const std::string& name : tool::namesInShm()) {
    if (const auto run = tool::lockedBy(name); run && tool::isRun(*run)) {
      runs.push_back(*run);
    }
  }
  return runs;
}

std::optional<tool::LockFile> lockRun(const std::string& run) {
  try {
    return tool::LockFile::takeOver(tool::lockPathOf(run));
  } catch (const std::runtime_error&) {
    return std::nullopt;  // another user's
  }
}

tool::LockFile::OwnerState ownerOf(const std::string& run) {
  try {
    return tool::LockFile::ownerOf(tool::lockPathOf(run));
  } catch (const std::runtime_error&) {
    return tool::LockFile::OwnerState::alive;  // another user's
  }
}

}  // namespace

LeaseRun::LeaseRun() : name("orvane-" + tool::timeAndProcess()) {}

void LeaseRun::lockForQueues() {
  if (!lock) {
    lock.emplace(tool::LockFile::ofNewName(tool::lockPathOf(name)));
  }
}

std::string LeaseRun::newQueueName() const {
  std::string queue;
  do {
    queue = name + "_" + randomDigits();
  } while (isUsed(queue));
  return queue;
}

DeadRuns lockDeadRuns() {
  DeadRuns dead;
  for (const std::string& run : runsInShm()) {
    if (auto lock = lockRun(run)) {
      // Only now is the list complete: a living run may create more.
      dead.locked.push_back({std::move(*lock), tool::queuesOf(run, tool::namesInShm())});
    } else if (ownerOf(run) != tool::LockFile::OwnerState::alive) {
      dead.moreLater = true;
    }
  }
  return dead;
}

tool::LockFile::OwnerState ownerOfLeased(const std::string& queueName) {
  const auto run = tool::runOf(queueName);
  return run ? ownerOf(*run) : tool::LockFile::OwnerState::alive;
}

}  // namespace orvaned
