#include "lease_run.hpp"

#include <filesystem>
#include <optional>
#include <orvane/orvane.hpp>
#include <regex>
#include <set>
#include <stdexcept>

#include "process_name.hpp"

namespace orvaned {
namespace {

namespace fs = std::filesystem;

constexpr char kRun[] = "orvane-[0-9]{8}T[0-9]{6}-[0-9]+";
constexpr char kShmFolder[] = "/dev/shm";

std::optional<std::string> runOf(const std::string& queueName) {
  static const std::regex leased("(" + std::string(kRun) + ")_[0-9]+");
  std::smatch parts;
  return std::regex_match(queueName, parts, leased) ? std::optional(parts[1].str()) : std::nullopt;
}

std::set<std::string> namesInShm() {
  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(kShmFolder)) {
    names.insert(entry.path().filename());
  }
  return names;
}

// Also of those of which only a response queue, or a private name, is left.
std::vector<std::string> queuesOf(const std::string& run, const std::set<std::string>& names) {
  const std::regex partOfPair("\\.?(" + run + "_[0-9]+)(Response)?(\\.new)?");
  std::set<std::string> queues;
  for (const std::string& name : names) {
    std::smatch parts;
    if (std::regex_match(name, parts, partOfPair)) {
      queues.insert(parts[1]);
    }
  }
  return {queues.begin(), queues.end()};
}

// Those with a lock file.
std::vector<std::string> runsOf(const std::set<std::string>& names) {
  static const std::regex lockName("\\.(" + std::string(kRun) + ")\\.lock");
  std::vector<std::string> runs;
  for (const std::string& name : names) {
    std::smatch parts;
    if (std::regex_match(name, parts, lockName)) {
      runs.push_back(parts[1]);
    }
  }
  return runs;
}

std::optional<LockFile> takeOver(const std::string& run) {
  try {
    return LockFile::takeOver(lockPathOf(run));
  } catch (const std::runtime_error&) {
    return std::nullopt;  // another user's
  }
}

LockFile::Owner ownerOf(const std::string& run) {
  try {
    return LockFile::ownerOf(lockPathOf(run));
  } catch (const std::runtime_error&) {
    return LockFile::Owner::alive;  // another user's
  }
}

}  // namespace

LeaseRun::LeaseRun() : name("orvane-" + timeAndProcess()), lock(lockPathOf(name)) {}

std::string LeaseRun::newQueueName() const {
  return orvane::UniqueIdGenerator::getInstance().generateId(name);
}

DeadRuns takeDeadRuns() {
  DeadRuns dead;
  for (const std::string& run : runsOf(namesInShm())) {
    if (auto lock = takeOver(run)) {
      // Looked for only now: until its end it may have made more.
      dead.taken.push_back({std::move(*lock), queuesOf(run, namesInShm())});
    } else if (ownerOf(run) != LockFile::Owner::alive) {
      dead.moreToCome = true;
    }
  }
  return dead;
}

LockFile::Owner ownerOfLeased(const std::string& queueName) {
  const auto run = runOf(queueName);
  return run ? ownerOf(*run) : LockFile::Owner::alive;
}

}  // namespace orvaned
