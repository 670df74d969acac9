#pragma once

#include <chrono>
#include <orvane/orvane.hpp>
#include <queue/message_queue.hpp>
#include <ring/producer.hpp>
#include <vector>

#include "link.hpp"

namespace bench {

// How long a reader pauses between two looks at an empty queue: longer and longer, until there is
// something.
struct Pauses {
  std::chrono::microseconds shortest{50};
  std::chrono::microseconds longest{5000};
};

// As orvaned is started by default, and as a ring's writer works by default.
struct Geometry {
  std::size_t messages = 8;
  std::size_t messageSize = 1048968;
  std::size_t frame = orvane::ring::Producer::kUsualFrame;
  std::size_t ring = orvane::kDefaultRing;
  Pauses pauses = {};
};

// "8x1048968" and "50-5000", as in the options. Throw std::invalid_argument.
Geometry geometryNamed(const std::string& text);
Pauses pausesNamed(const std::string& text);

// How the reader waits for a message: in the queue's receive(), or polling as orvaned does.
enum class Wait { inQueue, polling };

// The queue that orvane works on, by itself. Receives waiting in the queue, or by polling it as
// orvaned does.
class QueueLink : public Link {
 public:
  QueueLink(Geometry geometry, std::size_t capacity, Wait wait);
  ~QueueLink() override;

  const std::string& name() const { return queueName; }
  unsigned char* room() override { return buffer.data(); }
  using Link::send;
  void send(std::size_t size) override;
  Bytes receive() override;

  // Is there a message? Its size, then.
  bool tryReceive(std::size_t& size);

 private:
  const std::string queueName = uniqueName();
  const Wait wait;
  const Pauses pauses;
  boost::interprocess::message_queue queue;
  std::vector<unsigned char> buffer;
};

// The same for an orvane::ShmWriter: it answers each batch when the next one is asked for.
class AnsweringQueueLink : public QueueLink {
 public:
  AnsweringQueueLink(Geometry geometry, Wait wait);
  ~AnsweringQueueLink() override;

  Bytes receive() override;

 private:
  boost::interprocess::message_queue responses;
  bool owesAnswer = false;
};

}  // namespace bench
