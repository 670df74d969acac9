#include "queue_pair.hpp"

#include <boost/interprocess/permissions.hpp>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace orvaned {

namespace ipc = boost::interprocess;
using orvane::pvk_shm_response_t;

namespace {

constexpr char kShmFolder[] = "/dev/shm";
constexpr unsigned kSuccessPriority = 0;
constexpr unsigned kErrorPriority = 1;

// As many answers as can be owed at once: to the messages that wait, to the one being stored, and a
// farewell. A producer that takes one answer for each message that it sends never fills the queue.
constexpr std::size_t kAnswersBeyondMessages = 2;

// Boost's layout: a header, and for each message a pointer, a header and whole 8-byte words.
std::size_t bytesOfQueue(std::size_t messages, std::size_t messageSize) {
  return 208 + messages * (24 + (messageSize + 7) / 8 * 8);
}

// Asked before anything is created: a queue that outgrows /dev/shm fails all its other users too.
const Geometry& checkRoom(const Geometry& geometry) {
  const std::size_t needed =
      bytesOfQueue(geometry.messages, geometry.messageSize) +
      bytesOfQueue(geometry.messages + kAnswersBeyondMessages, sizeof(pvk_shm_response_t));
  const auto available = std::filesystem::space(kShmFolder).available;
  if (needed > available) {
    throw std::runtime_error("the queues need " + std::to_string(needed) + " bytes of " +
                             kShmFolder + ", which has " + std::to_string(available) +
                             ": use fewer or smaller messages, or enlarge it");
  }
  return geometry;
}

}  // namespace

QueuePair::Queue::Queue(std::string queueName, std::size_t messages, std::size_t messageSize,
                        mode_t mode)
    : name(std::move(queueName)) {
  try {
    queue.emplace(ipc::create_only, name.c_str(), messages, messageSize, ipc::permissions(mode));
  } catch (const ipc::interprocess_exception& e) {
    const std::string path = std::string(kShmFolder) + "/" + name;
    if (e.get_error_code() == ipc::already_exists_error) {
      throw std::runtime_error("the queue " + name + " is in use: take another name, or remove " +
                               path + " if its server is gone");
    }
    // Where the memory ran out, Boost leaves an empty file behind.
    ipc::message_queue::remove(name.c_str());
    throw std::runtime_error("cannot create " + path + ": " +
                             std::generic_category().message(e.get_native_error()));
  }
}

QueuePair::Queue::~Queue() {
  ipc::message_queue::remove(name.c_str());
}

QueuePair::QueuePair(const std::string& name, const Geometry& geometry)
    : bufferSize(checkRoom(geometry).messageSize),
      buffer(std::make_unique_for_overwrite<unsigned char[]>(bufferSize)),
      response(orvane::getMessageQueueResponseName(name),
               geometry.messages + kAnswersBeyondMessages, sizeof(pvk_shm_response_t),
               geometry.mode),
      send(name, geometry.messages, geometry.messageSize, geometry.mode) {}

std::optional<std::span<const unsigned char>> QueuePair::receive() {
  ipc::message_queue::size_type size = 0;
  unsigned priority = 0;
  if (!send.queue->try_receive(buffer.get(), bufferSize, size, priority)) {
    return std::nullopt;
  }
  return std::span<const unsigned char>(buffer.get(), size);
}

void QueuePair::answer(const pvk_shm_response_t& answer) {
  postPending();
  if (pending) {
    return;
  }
  if (!post(answer) && answer.status != 0) {
    pending = answer;
  }
}

void QueuePair::postPending() {
  if (pending && post(*pending)) {
    pending.reset();
  }
}

void QueuePair::discardAnswers() {
  pending.reset();
  pvk_shm_response_t discarded;
  ipc::message_queue::size_type size = 0;
  unsigned priority = 0;
  // Bounded: another producer may be posting into this queue what it likes.
  for (std::size_t n = response.queue->get_max_msg(); n > 0; --n) {
    if (!response.queue->try_receive(&discarded, sizeof(discarded), size, priority)) {
      return;
    }
  }
}

bool QueuePair::post(const pvk_shm_response_t& answer) {
  return response.queue->try_send(&answer, sizeof(answer),
                                  answer.status == 0 ? kSuccessPriority : kErrorPriority);
}

}  // namespace orvaned
