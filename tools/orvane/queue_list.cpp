#include "queue_list.hpp"

#include <filesystem>
#include <orvane/orvane.hpp>
#include <set>

namespace tool {

std::vector<std::string> queuesHere() {
  std::set<std::string> names;
  std::error_code ignored;  // an unreadable folder lists nothing
  for (const auto& entry : std::filesystem::directory_iterator(kShmFolder, ignored)) {
    names.insert(entry.path().filename());
  }
  std::vector<std::string> queues;
  for (const std::string& name : names) {
    if (names.count(orvane::getMessageQueueResponseName(name)) > 0) {
      queues.push_back(name);
    }
  }
  return queues;
}

}  // namespace tool
