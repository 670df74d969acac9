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

namespace tool {

// A ShmWriter that never has to wait inside the queue: the wait for room is done here, by polling.
// So it can be interrupted, and a command that is killed while it waits leaves the queue usable; a
// process that dies inside the queue's own wait wedges it for every later one.
//
// What ShmWriter throws passes through, and so do the queue's exceptions. Besides, each call throws
// Failure when the queue stays full or its server is gone, what Lease::receipt() throws when the
// lease has ended, and Interrupted.
class PolledWriter {
 public:
  // Attaches to the pair. `roomTimeout` bounds each wait for room. A null pointer stands for a
  // queue that is not leased.
  PolledWriter(const std::string& queue, std::chrono::seconds roomTimeout, Interrupt& endsIt,
               orvane::Lease* queuesLease = nullptr);

  // The most data that one record can carry here.
  std::size_t recordSize() const { return maxData; }

  void open();
  void writeSegment(const unsigned char* data, std::size_t size);
  void endSegment();
  void close();

  // Tells the server that the stream ends here, unfinished. If that cannot be told within seconds,
  // nothing more is: not even by the writer's own end, which would close the stream as a whole one.
  void abort() noexcept;

  // Messages sent so far, whatever the stream.
  std::uint64_t batchesSent() const { return batches; }

  // Sends an empty batch, for the sake of its answer.
  void probe() { flush(); }

  // The answers that are there, errors first, but for those that the writer picked up itself.
  std::vector<orvane::pvk_shm_response_t> takeAnswers();

  // Has the server taken every batch? It has then answered all but the last one.
  bool allTaken();

  // Has the server removed the queue, or ended its lease? What it answered before can still be
  // taken.
  bool serverLeft() const;

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
  std::unique_ptr<orvane::ShmWriter> writer;
  const std::size_t maxData;
  std::size_t batchSize;  // bytes in the writer's batch
  std::uint64_t batches = 0;
};

}  // namespace tool
