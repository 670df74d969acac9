#include "worker/queue_pair.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
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

constexpr mode_t kGroupMode = 0660;
constexpr std::size_t kPage = 4096;
constexpr unsigned kSuccessPriority = 0;
constexpr unsigned kErrorPriority = 1;

// The most responses that can wait at once: one for each waiting message, one for the message being
// stored, and a notice. A producer that receives one response per message never fills the queue.
constexpr std::size_t kResponsesBeyondMessages = 2;

// Boost's layout: a header, then for each message a pointer, a header and whole 8-byte words.
std::size_t bytesOfQueue(std::size_t messages, std::size_t messageSize) {
  return 208 + messages * (24 + (messageSize + 7) / 8 * 8);
}

// Checked before anything is created: a queue that fills /dev/shm would harm all its other users.
const Geometry& checkRoom(const Geometry& geometry) {
  const std::size_t needed = bytesOfPair(geometry);
  const std::filesystem::path folder = std::filesystem::path(tool::kShmFolder).parent_path();
  const auto available = std::filesystem::space(folder).available;
  if (needed > available) {
    throw std::runtime_error("the queues need " + std::to_string(needed) + " bytes of " +
                             folder.string() + ", which has " + std::to_string(available) +
                             ": use fewer or smaller messages, or enlarge it");
  }
  return geometry;
}

std::string pathOf(const std::string& name) {
  return tool::kShmFolder + name;
}

[[noreturn]] void failToCreate(const std::string& name, int error) {
  throw std::runtime_error("cannot create " + pathOf(name) + ": " +
                           std::generic_category().message(error));
}

// The group of a producer that runs as another user.
std::optional<gid_t> readersOf(const std::optional<Owner>& owner) {
  return owner && owner->user != geteuid() ? std::optional(owner->group) : std::nullopt;
}

// If this process may not change the owner, the group gets the file.
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
         bytesOfQueue(geometry.messages + kResponsesBeyondMessages, sizeof(pvk_shm_response_t)) +
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
      // When memory runs out, Boost leaves an empty file.
      ipc::message_queue::remove(privateName.c_str());
    }
    failToCreate(name, e.get_native_error());
  }
}

void QueuePair::Queue::publish(std::optional<Owner> owner) {
  if (owner) {
    giveTo(*owner, privateName);
  }
  // Unlike rename(), link() never replaces another program's file.
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
      responseQueue(orvane::getMessageQueueResponseName(name),
                    geometry.messages + kResponsesBeyondMessages, sizeof(pvk_shm_response_t),
                    geometry.mode, owner),
      sendQueue(name, geometry.messages, geometry.messageSize, geometry.mode, owner) {}

std::optional<std::span<const unsigned char>> QueuePair::receive() {
  ipc::message_queue::size_type size = 0;
  unsigned priority = 0;
  const QueueCall call(watched);
  if (!sendQueue.queue->try_receive(buffer.data(), buffer.size(), size, priority)) {
    return std::nullopt;
  }
  watched.messages.store(watched.messages.load(std::memory_order_relaxed) + 1,
                         std::memory_order_relaxed);
  return std::span<const unsigned char>(buffer.data(), size);
}

void QueuePair::leaveNames() {
  responseQueue.removesName = false;
  sendQueue.removesName = false;
  published.leaveName();
}

std::size_t QueuePair::waiting() {
  const QueueCall call(watched);
  return std::min<std::size_t>(sendQueue.queue->get_num_msg(), most);
}

void QueuePair::answer(const pvk_shm_response_t& response) {
  postPending();
  if (pending) {
    return;
  }
  if (!post(response) && response.status != 0) {
    pending = response;
  }
}

void QueuePair::postPending() {
  if (pending && post(*pending)) {
    pending.reset();
  }
}

void QueuePair::discardResponses() {
  pending.reset();
  ipc::message_queue::size_type size = 0;
  unsigned priority = 0;
  // Bounded, because another producer may be posting into this queue all the time.
  for (std::size_t n = responseQueue.queue->get_max_msg(); n > 0; --n) {
    const QueueCall call(watched);
    if (!responseQueue.queue->try_receive(responseBuffer.data(), responseBuffer.size(), size,
                                          priority)) {
      return;
    }
  }
}

bool QueuePair::post(const pvk_shm_response_t& response) {
  const QueueCall call(watched);
  return responseQueue.queue->try_send(&response, sizeof(response),
                                       response.status == 0 ? kSuccessPriority : kErrorPriority);
}

}  // namespace orvaned
