#include "queue_link.hpp"

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <thread>

namespace bench {

namespace ipc = boost::interprocess;

Geometry geometryNamed(const std::string& text) {
  Geometry geometry;
  if (std::sscanf(text.c_str(), "%zux%zu", &geometry.messages, &geometry.messageSize) != 2) {
    throw std::invalid_argument(text + " is no geometry: write MESSAGESxBYTES");
  }
  return geometry;
}

Pauses pausesNamed(const std::string& text) {
  unsigned shortest = 0;
  unsigned longest = 0;
  if (std::sscanf(text.c_str(), "%u-%u", &shortest, &longest) != 2) {
    throw std::invalid_argument(text + " are no pauses: write SHORTEST-LONGEST, in microseconds");
  }
  return {std::chrono::microseconds(shortest), std::chrono::microseconds(longest)};
}

QueueLink::QueueLink(Geometry geometry, std::size_t capacity, Wait how)
    : wait(how),
      pauses(geometry.pauses),
      queue(ipc::create_only, queueName.c_str(), geometry.messages, geometry.messageSize),
      buffer(std::max(capacity, geometry.messageSize)) {}

QueueLink::~QueueLink() {
  ipc::message_queue::remove(queueName.c_str());
}

void QueueLink::send(std::size_t size) {
  queue.send(buffer.data(), size, 0);
}

Bytes QueueLink::receive() {
  std::size_t size = 0;
  if (wait == Wait::inQueue) {
    ipc::message_queue::size_type received = 0;
    unsigned priority = 0;
    queue.receive(buffer.data(), buffer.size(), received, priority);
    size = received;
  } else {
    for (auto pause = pauses.shortest; !tryReceive(size);
         pause = std::min(pause * 2, pauses.longest)) {
      std::this_thread::sleep_for(pause);
    }
  }
  return {buffer.data(), size};
}

bool QueueLink::tryReceive(std::size_t& size) {
  ipc::message_queue::size_type received = 0;
  unsigned priority = 0;
  const bool found = queue.try_receive(buffer.data(), buffer.size(), received, priority);
  size = received;
  return found;
}

AnsweringQueueLink::AnsweringQueueLink(Geometry geometry, Wait how)
    : QueueLink(geometry, geometry.messageSize, how),
      responses(ipc::create_only, orvane::getMessageQueueResponseName(name()).c_str(),
                geometry.messages + 2, sizeof(orvane::pvk_shm_response_t)) {}

AnsweringQueueLink::~AnsweringQueueLink() {
  ipc::message_queue::remove(orvane::getMessageQueueResponseName(name()).c_str());
}

Bytes AnsweringQueueLink::receive() {
  if (owesAnswer) {
    const orvane::pvk_shm_response_t success;
    responses.try_send(&success, sizeof success, 0);
  }
  owesAnswer = true;
  return QueueLink::receive();
}

}  // namespace bench
