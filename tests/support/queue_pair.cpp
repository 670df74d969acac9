#include "support/queue_pair.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace orvane::test {

using boost::interprocess::create_only;
using boost::interprocess::message_queue;

std::string uniqueQueueName() {
  static std::atomic<int> counter{0};
  std::string name =
      "orvane_test." + std::to_string(getpid()) + "." + std::to_string(counter++) + ".";
  if (const testing::TestInfo* test = testing::UnitTest::GetInstance()->current_test_info()) {
    name += test->name();
  }
  std::replace(name.begin(), name.end(), '/', '_');
  return name;
}

QueueName::QueueName(std::string queueName) : name(std::move(queueName)) {}

QueueName::~QueueName() {
  message_queue::remove(name.c_str());
}

QueuePair::QueuePair(const Geometry& geometry)
    : sendName(uniqueQueueName()),
      answerName(sendName.text() + "Response"),
      sendQueue(create_only, name().c_str(), geometry.depth, geometry.messageSize),
      responseQueue(create_only, responseName().c_str(), geometry.depth + 2,
                    geometry.responseSize) {}

Message QueuePair::receive() {
  Message message;
  message.bytes.resize(sendQueue.get_max_msg_size());
  message_queue::size_type size = 0;
  if (!sendQueue.try_receive(message.bytes.data(), message.bytes.size(), size, message.priority)) {
    throw std::runtime_error("no message waits in the send queue");
  }
  message.bytes.resize(size);
  return message;
}

void QueuePair::discardAll() {
  while (waiting() > 0) {
    receive();
  }
}

void QueuePair::fill() {
  while (sendQueue.try_send("x", 1, 0)) {
  }
}

void QueuePair::post(std::int32_t status, const std::string& text) {
  Bytes bytes(132);
  std::memcpy(bytes.data(), &status, 4);
  std::memcpy(bytes.data() + 4, text.data(), std::min<std::size_t>(text.size(), 128));
  postBytes(bytes);
}

void QueuePair::postBytes(const Bytes& bytes) {
  const unsigned char nothing = 0;
  if (!responseQueue.try_send(bytes.empty() ? &nothing : bytes.data(), bytes.size(), 0)) {
    throw std::runtime_error("the response queue is full");
  }
}

std::size_t mappingsOf(const std::string& name) {
  std::ifstream maps("/proc/self/maps");
  std::size_t count = 0;
  for (std::string line; std::getline(maps, line);) {
    count += line.ends_with("/dev/shm/" + name) ? 1U : 0U;
  }
  return count;
}

}  // namespace orvane::test
