#include "worker/queue_pair.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <boost/interprocess/permissions.hpp>
#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "shm/shm_names.hpp"

namespace orvaned {

namespace ipc = boost::interprocess;
using orvane::pvk_shm_response_t;

namespace {

constexpr char kShmFolder[] = "/dev/shm";
constexpr mode_t kGroupMode = 0660;
constexpr std::size_t kPage = 4096;
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
  const std::size_t needed = bytesOfPair(geometry);
  const auto available = std::filesystem::space(kShmFolder).available;
  if (needed > available) {
    throw std::runtime_error("the queues need " + std::to_string(needed) + " bytes of " +
                             kShmFolder + ", which has " + std::to_string(available) +
                             ": use fewer or smaller messages, or enlarge it");
  }
  return geometry;
}

std::string pathOf(const std::string& name) {
  return std::string(kShmFolder) + "/" + name;
}

[[noreturn]] void failToCreate(const std::string& name, int error) {
  throw std::runtime_error("cannot create " + pathOf(name) + ": " +
                           std::generic_category().message(error));
}

// The group of a producer that is another user.
std::optional<gid_t> readersOf(const std::optional<Owner>& owner) {
  return owner && owner->user != geteuid() ? std::optional(owner->group) : std::nullopt;
}

// By its group, where this process may not give files away.
void giveTo(const Owner& owner, const std::string& name) {
  const std::string path = pathOf(name);
  if (owner.user == geteuid() || chown(path.c_str(), owner.user, owner.group) == 0) {
    return;
  }
  if (chown(path.c_str(), static_cast<uid_t>(-1), owner.group) != 0 ||
      chmod(path.c_str(), kGroupMode) != 0) {
    throw std::runtime_error("cannot give a queue to user " + std::to_string(owner.user) +
                             " or to group " + std::to_string(owner.group) +
                             ": run orvaned as root, or as a member of that group");
  }
}

}  // namespace

std::size_t bytesOfPair(const Geometry& geometry) {
  return bytesOfQueue(geometry.messages, geometry.messageSize) +
         bytesOfQueue(geometry.messages + kAnswersBeyondMessages, sizeof(pvk_shm_response_t)) +
         kPage;  // for the totals
}

QueuePair::Queue::Queue(std::string queueName, std::size_t messages, std::size_t messageSize,
                        mode_t mode, std::optional<Owner> owner)
    : name(std::move(queueName)), privateName(tool::privateNameOf(name)) {
  create(messages, messageSize, mode);
  try {
    publish(owner);
  } catch (...) {
    ipc::message_queue::remove(privateName.c_str());
    throw;
  }
}

void QueuePair::Queue::create(std::size_t messages, std::size_t messageSize, mode_t mode) {
  try {
    queue.emplace(ipc::create_only, privateName.c_str(), messages, messageSize,
                  ipc::permissions(mode));
  } catch (const ipc::interprocess_exception& e) {
    if (e.get_error_code() != ipc::already_exists_error) {
      // Where the memory ran out, Boost leaves an empty file behind.
      ipc::message_queue::remove(privateName.c_str());
    }
    failToCreate(name, e.get_native_error());
  }
}

void QueuePair::Queue::publish(std::optional<Owner> owner) {
  if (owner) {
    giveTo(*owner, privateName);
  }
  // Unlike rename(), link() never replaces what somebody else has there.
  if (link(pathOf(privateName).c_str(), pathOf(name).c_str()) != 0) {
    if (errno == EEXIST) {
      throw std::runtime_error("the queue " + name + " is in use: take another name, or remove " +
                               pathOf(name) + " if its server is gone");
    }
    failToCreate(name, errno);
  }
  ipc::message_queue::remove(privateName.c_str());
}

QueuePair::Queue::~Queue() {
  if (removesName) {
    ipc::message_queue::remove(name.c_str());
  }
}

QueuePair::QueuePair(const std::string& name, const Geometry& geometry, std::optional<Owner> owner,
                     Heartbeat* heartbeat)
    : watched(heartbeat != nullptr ? *heartbeat : unwatched),
      most(geometry.messages),
      buffer(checkRoom(geometry).messageSize),
      responseBuffer(sizeof(pvk_shm_response_t)),
      published(name, geometry, readersOf(owner),
                owner ? std::optional(owner->user) : std::nullopt),
      response(orvane::getMessageQueueResponseName(name),
               geometry.messages + kAnswersBeyondMessages, sizeof(pvk_shm_response_t),
               geometry.mode, owner),
      send(name, geometry.messages, geometry.messageSize, geometry.mode, owner) {}

std::optional<std::span<const unsigned char>> QueuePair::receive() {
  ipc::message_queue::size_type size = 0;
  unsigned priority = 0;
  const QueueCall call(watched);
  if (!send.queue->try_receive(buffer.data(), buffer.size(), size, priority)) {
    return std::nullopt;
  }
  watched.messages.store(watched.messages.load(std::memory_order_relaxed) + 1,
                         std::memory_order_relaxed);
  return std::span<const unsigned char>(buffer.data(), size);
}

void QueuePair::leaveNames() {
  response.removesName = false;
  send.removesName = false;
  published.leaveName();
}

std::size_t QueuePair::waiting() {
  const QueueCall call(watched);
  return send.queue->get_num_msg();
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
  ipc::message_queue::size_type size = 0;
  unsigned priority = 0;
  // Bounded: another producer may be posting into this queue what it likes.
  for (std::size_t n = response.queue->get_max_msg(); n > 0; --n) {
    const QueueCall call(watched);
    if (!response.queue->try_receive(responseBuffer.data(), responseBuffer.size(), size,
                                     priority)) {
      return;
    }
  }
}

bool QueuePair::post(const pvk_shm_response_t& answer) {
  const QueueCall call(watched);
  return response.queue->try_send(&answer, sizeof(answer),
                                  answer.status == 0 ? kSuccessPriority : kErrorPriority);
}

}  // namespace orvaned
