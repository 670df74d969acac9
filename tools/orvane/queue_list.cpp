#include "queue_list.hpp"

#include <orvane/orvane.hpp>
#include <set>
#include <stdexcept>

#include "exit.hpp"
#include "shm/queue_rules.hpp"
#include "shm/shm_names.hpp"

namespace tool {
namespace {

void require(void (*check)(const std::string& name), const std::string& name) {
  try {
    check(name);
  } catch (const std::invalid_argument& e) {
    throw Failure(kUsage, e.what());
  }
}

}  // namespace

std::vector<std::string> queuesHere() {
  const std::set<std::string> names = namesInShm();
  std::vector<std::string> queues;
  for (const std::string& name : names) {
    if (names.count(orvane::getMessageQueueResponseName(name)) > 0 && mayBeQueue(name)) {
      queues.push_back(name);
    }
  }
  return queues;
}

bool mayBeQueue(const std::string& name) {
  try {
    checkQueueName(name);
    return true;
  } catch (const std::invalid_argument&) {
    return false;
  }
}

void requireQueueName(const std::string& name) {
  require(checkQueueName, name);
}

void requireFixedQueueName(const std::string& name) {
  require(checkFixedQueueName, name);
}

std::string noSuchQueue(const std::string& name) {
  std::string text = "no queue named " + name + ": is orvaned running? Queues here: ";
  const std::vector<std::string> queues = queuesHere();
  if (queues.empty()) {
    return text + "none; orvaned --queue " + name + " --store DIR would serve it";
  }
  for (std::size_t i = 0; i < queues.size(); ++i) {
    text += (i == 0 ? "" : ", ") + queues[i];
  }
  return text;
}

}  // namespace tool
