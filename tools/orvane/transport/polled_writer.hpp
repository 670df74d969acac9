#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <orvane/orvane.hpp>
#include <queue/message_queue.hpp>
#include <string>
#include <vector>

#include "interrupt.hpp"
#include "shm/fd.hpp"

namespace tool {

// A ShmWriter that never waits inside the queue, because this class polls until there is room. So
// the wait can be interrupted, and the queue stays usable when the command is killed while it
// waits. A process that dies inside the queue's own wait blocks the queue for all later processes.
//
// Exceptions of ShmWriter and of the queue pass through. Each call also throws Failure if the queue
// stays full or its server is gone, what Lease::receipt() throws if the lease has ended, and
// Interrupted.
class PolledWriter {
 public:
  // Attaches to the pair. `timeout` limits each wait for room. `lease` is null for a queue that is
  // not leased.
  PolledWriter(const std::string& queueName, std::chrono::seconds timeout, Interrupt& interrupt,
               orvane::Lease* lease = nullptr);

  // Returns the largest number of data bytes that a record on this queue can carry.
  std::size_t recordSize() const { return maxData; }

  void open();
  void writeSegment(const unsigned char* data, std::size_t size);
  void endSegment();
  void close();

  // Stops the stream. If the stop record cannot be sent within seconds, nothing more is sent: not
  // even by the writer's destructor, which would close the stream as if it were whole.
  void abort() noexcept;

  // Returns the number of batches sent so far, in all streams.
  std::uint64_t batchesSent() const { return batches; }

  // Sends an empty batch, so that the server sends a response.
  void probe() { flush(); }

  // Receives the responses that are waiting, errors first. The writer may have received others.
  std::vector<orvane::pvk_shm_response_t> receiveResponses();

  // Returns true if the server has received every batch. It has then answered all but the last one.
  bool allReceived();

  // Returns true if the server has removed the queue or ended its lease. Responses that it sent
  // before can still be received.
  bool serverLeft() const;

  // Returns true if the server was killed: it has left the queue, which nobody will serve any more.
  // Only a server that publishes totals is known to be dead.
  bool serverDied() const;

 private:
  using Queue = boost::interprocess::message_queue;

  void makeRoomInBatch(std::size_t dataSize);
  void flush();
  void waitForRoom(std::chrono::seconds limit);
  [[noreturn]] void failToSend(const std::string& why) const;

  const std::string queueName;
  const std::chrono::seconds timeout;
  Interrupt& interrupt;
  orvane::Lease* const lease;
  Queue sendQueue;
  Queue responseQueue;
  const ino_t inode;  // of the send queue
  const Fd totals;    // none for a leased queue, or if the server publishes none
  std::unique_ptr<orvane::ShmWriter> writer;
  const std::size_t maxData;
  std::size_t batchSize;  // bytes in the writer's batch
  std::uint64_t batches = 0;
};

}  // namespace tool
