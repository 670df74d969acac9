#include "lease_run.hpp"

#include <optional>
#include <orvane/orvane.hpp>
#include <stdexcept>

#include "common/shm_names.hpp"
#include "process_name.hpp"

namespace orvaned {
namespace {

// Those with a lock file.
std::vector<std::string> runsInShm() {
  std::vector<std::string> runs;
  for (const std::string& name : tool::namesInShm()) {
    if (const auto run = tool::lockedBy(name); run && tool::isRun(*run)) {
      runs.push_back(*run);
    }
  }
  return runs;
}

std::optional<tool::LockFile> takeOver(const std::string& run) {
  try {
    return tool::LockFile::takeOver(tool::lockPathOf(run));
  } catch (const std::runtime_error&) {
    return std::nullopt;  // another user's
  }
}

tool::LockFile::Owner ownerOf(const std::string& run) {
  try {
    return tool::LockFile::ownerOf(tool::lockPathOf(run));
  } catch (const std::runtime_error&) {
    return tool::LockFile::Owner::alive;  // another user's
  }
}

}  // namespace

LeaseRun::LeaseRun() : name("orvane-" + timeAndProcess()), lock(tool::lockPathOf(name)) {}

std::string LeaseRun::newQueueName() const {
  return orvane::UniqueIdGenerator::getInstance().generateId(name);
}

DeadRuns takeDeadRuns() {
  DeadRuns dead;
  for (const std::string& run : runsInShm()) {
    if (auto lock = takeOver(run)) {
      // Looked for only now: until its end it may have made more.
      dead.taken.push_back({std::move(*lock), tool::queuesOf(run, tool::namesInShm())});
    } else if (ownerOf(run) != tool::LockFile::Owner::alive) {
      dead.moreToCome = true;
    }
  }
  return dead;
}

tool::LockFile::Owner ownerOfLeased(const std::string& queueName) {
  const auto run = tool::runOf(queueName);
  return run ? ownerOf(*run) : tool::LockFile::Owner::alive;
}

}  // namespace orvaned
