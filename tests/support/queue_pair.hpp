#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <queue/message_queue.hpp>
#include <string>
#include <vector>

#include "support/wire.hpp"

namespace orvane::test {

// A name that no other test and no other process uses.
std::string uniqueQueueName();

// A name and its removal, for tests that create queues in their own way.
class QueueName {
 public:
  explicit QueueName(std::string queueName);
  ~QueueName();  // removes the queue, if there is one
  QueueName(const QueueName&) = delete;
  QueueName& operator=(const QueueName&) = delete;

  const std::string& text() const { return name; }

 private:
  std::string name;
};

struct Message {
  Bytes bytes;
  unsigned int priority = 0;
};

// The server's side of a stream, without a server: a send queue and a response queue under a unique
// name, removed at the end.
class QueuePair {
 public:
  struct Geometry {
    std::size_t messageSize = 1024;
    std::size_t depth = 8;
    std::size_t responseSize = 132;
  };

  QueuePair() : QueuePair(Geometry()) {}
  explicit QueuePair(const Geometry& geometry);

  const std::string& name() const { return sendName.text(); }
  const std::string& responseName() const { return answerName.text(); }

  // Takes what was sent. receive() throws when nothing waits.
  std::size_t waiting() const { return sendQueue.get_num_msg(); }
  Message receive();
  std::vector<Record> receiveRecords() { return recordsOf(receive().bytes); }
  void discardAll();

  // Occupies every free slot of the send queue with messages of one byte.
  void fill();

  // Posts an answer: its 132 bytes, or the given ones as they are.
  void post(std::int32_t status, const std::string& text);
  void postBytes(const Bytes& bytes);
  std::size_t waitingAnswers() const { return responseQueue.get_num_msg(); }

 private:
  QueueName sendName;
  QueueName answerName;
  boost::interprocess::message_queue sendQueue;
  boost::interprocess::message_queue responseQueue;
};

// How often the shared memory `name` is mapped into this process.
std::size_t mappingsOf(const std::string& name);

}  // namespace orvane::test
