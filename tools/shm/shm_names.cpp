#include "shm/shm_names.hpp"

#include <filesystem>
#include <orvane/orvane.hpp>
#include <regex>
#include <string_view>

namespace tool {
namespace {

namespace fs = std::filesystem;

constexpr char kRun[] = "orvane-[0-9]{8}T[0-9]{6}-[0-9]+";

// A run's name is followed by 16 random hexadecimal digits, or by a number from an earlier server.
constexpr char kQueueOfRun[] = "_(?:[0-9a-f]{16}|[0-9]+)";

std::optional<std::string> withoutDotAnd(std::string_view end, const std::string& name) {
  if (name.size() <= 1 + end.size() || name.front() != '.' || !name.ends_with(end)) {
    return std::nullopt;
  }
  return name.substr(1, name.size() - 1 - end.size());
}

}  // namespace

std::set<std::string> namesInShm() {
  std::set<std::string> names;
  std::error_code error;
  for (auto entry = fs::directory_iterator(kShmFolder, error);
       !error && entry != fs::directory_iterator(); entry.increment(error)) {
    names.insert(entry->path().filename());
  }
  return names;
}

std::string privateNameOf(const std::string& queueName) {
  return "." + queueName + ".new";
}

std::string totalsNameOf(const std::string& queueName) {
  return "." + queueName + ".stats";
}

std::string totalsPathOf(const std::string& queueName) {
  return kShmFolder + totalsNameOf(queueName);
}

std::array<std::string, 5> pathsOfPair(const std::string& queueName) {
  const std::string folder = kShmFolder;
  const std::string response = orvane::getMessageQueueResponseName(queueName);
  return {folder + queueName, folder + response, folder + privateNameOf(queueName),
          folder + privateNameOf(response), totalsPathOf(queueName)};
}

bool isRun(const std::string& name) {
  static const std::regex run(kRun);
  return std::regex_match(name, run);
}

std::optional<std::string> runOf(const std::string& queueName) {
  static const std::regex leased("(" + std::string(kRun) + ")" + kQueueOfRun);
  std::smatch parts;
  return std::regex_match(queueName, parts, leased) ? std::optional(parts[1].str()) : std::nullopt;
}

bool beginsAsLeased(const std::string& name) {
  static const std::regex run(kRun);
  return std::regex_search(name, run, std::regex_constants::match_continuous);
}

std::vector<std::string> queuesOf(const std::string& run, const std::set<std::string>& names) {
  const std::regex partOfPair("\\.?(" + run + kQueueOfRun + ")(Response)?(\\.new|\\.stats)?");
  std::set<std::string> queues;
  for (const std::string& name : names) {
    std::smatch parts;
    if (std::regex_match(name, parts, partOfPair)) {
      queues.insert(parts[1]);
    }
  }
  return {queues.begin(), queues.end()};
}

std::optional<std::string> lockedBy(const std::string& fileName) {
  return withoutDotAnd(".lock", fileName);
}

std::optional<std::string> countedBy(const std::string& fileName) {
  return withoutDotAnd(".stats", fileName);
}

}  // namespace tool
