#include "shm/queue_rules.hpp"

#include <orvane/orvane.hpp>
#include <stdexcept>

#include "shm/shm_names.hpp"

namespace tool {
namespace {

// Written out, because std::isalnum depends on the locale.
constexpr char kAllowed[] =
    "abcdefghijklmnopqrstuvwxyz"
    "ABCDEFGHIJKLMNOPQRSTUVWXYZ"
    "0123456789_.-";

std::size_t messageSize(std::size_t count, std::size_t dataSize) {
  return orvane::ShmBatch::MetaData::getSerializedSize() +
         count * (orvane::pvk_shm_message_t::getSerializedSize() + dataSize);
}

}  // namespace

void checkQueueName(const std::string& name) {
  if (name.empty()) {
    throw std::invalid_argument("the queue name is empty");
  }
  if (name.size() > kMaxQueueName) {
    throw std::invalid_argument("the queue name is " + std::to_string(name.size()) +
                                " bytes long: use at most " + std::to_string(kMaxQueueName));
  }
  // The messages do not show the name, because it may hold characters that a terminal interprets.
  if (name.front() == '.') {
    throw std::invalid_argument("the queue name begins with a dot");
  }
  if (name.ends_with("Response")) {
    throw std::invalid_argument("the queue name ends in Response, as only response queues' do");
  }
  if (name.find_first_not_of(kAllowed) != std::string::npos) {
    throw std::invalid_argument(
        "the queue name holds a character that is not allowed: use letters, digits and _.-");
  }
}

void checkFixedQueueName(const std::string& name) {
  checkQueueName(name);
  if (beginsAsLeased(name)) {
    throw std::invalid_argument(
        "the queue name begins as those of leased queues do, orvane-TIME-PROCESS: take another "
        "one");
  }
}

std::size_t messageSizeFor(std::size_t count) {
  return messageSize(count, orvane::ShmWriter::getMaxSegmentSize());
}

std::size_t smallestMessageSize() {
  return messageSize(1, 0);
}

}  // namespace tool
