#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <orvane/orvane.hpp>
#include <queue/message_queue.hpp>
#include <span>
#include <string>

#include "geometry.hpp"
#include "worker/batch_source.hpp"
#include "worker/guarded_buffer.hpp"
#include "worker/heartbeat.hpp"
#include "worker/totals_file.hpp"

namespace orvaned {

// The user and group that get a leased pair.
struct Owner {
  uid_t user;
  gid_t group;
};

// Bytes of /dev/shm that a pair needs.
std::size_t bytesOfPair(const Geometry& geometry);

// A send queue and its response queue in /dev/shm, and the file of its totals, created and removed
// with this object. Nothing here waits inside a queue. Exceptions of Boost pass through; after one,
// the pair cannot be used any more.
class QueuePair : public BatchSource {
 public:
  // Throws std::runtime_error, and leaves no file, when a name is in use, there is no room, or the
  // pair cannot be given to `owner`. Without an owner it stays with this process's user.
  // `heartbeat` counts each call into the queues.
  QueuePair(const std::string& name, const Geometry& geometry, std::optional<Owner> owner = {},
            Heartbeat* heartbeat = nullptr);

  std::optional<std::span<const unsigned char>> receive() override;
  std::size_t waiting() override;

  // Errors overtake successes.
  void answer(const orvane::pvk_shm_response_t& response) override;
  void postPending() override;
  void discardResponses() override;
  bool wait() override { return false; }  // waiting inside a queue could hang
  tool::Totals& totals() override { return published.totals(); }

  // From now on another process removes the names: this one is about to lose the right to do it.
  void leaveNames();

 private:
  struct Queue {
    Queue(std::string queueName, std::size_t messages, std::size_t messageSize, mode_t mode,
          std::optional<Owner> owner);
    ~Queue();
    Queue(const Queue&) = delete;
    Queue& operator=(const Queue&) = delete;

    void create(std::size_t messages, std::size_t messageSize, mode_t mode);
    void publish(std::optional<Owner> owner);

    const std::string name;
    const std::string privateName;
    bool removesName = true;
    std::optional<boost::interprocess::message_queue> queue;
  };

  bool post(const orvane::pvk_shm_response_t& response);

  Heartbeat unwatched;
  Heartbeat& watched;
  const std::size_t most;              // messages that the send queue holds
  const GuardedBuffer buffer;          // for a message
  const GuardedBuffer responseBuffer;  // for a response that no producer received
  TotalsFile published;                // created before the queues, which must not exist without it
  Queue responseQueue;  // created before the send queue: a producer that finds the send queue
                        // relies on it
  Queue sendQueue;
  std::optional<orvane::pvk_shm_response_t> pending;
};

}  // namespace orvaned
