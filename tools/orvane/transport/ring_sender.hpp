#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <orvane/orvane.hpp>

#include "interrupt.hpp"

namespace tool {

// A RingWriter whose waits can be interrupted: it waits a second at a time, and no call changes
// anything when that second is over.
//
// Exceptions of RingWriter pass through, but for a timeout, which is a Failure. Each call also
// throws Interrupted.
class RingSender {
 public:
  // `timeout` limits each wait for room.
  RingSender(orvane::Lease& lease, std::chrono::seconds timeout, Interrupt& interrupt);

  // Returns the largest number of data bytes that a record can carry.
  std::size_t recordSize() const { return orvane::ShmWriter::getMaxSegmentSize(); }

  void open();
  void writeSegment(const unsigned char* data, std::size_t size);
  void endSegment();
  void close();

  // Stops the stream if the ring has room for the stop record now, and does not wait. The lease
  // ends afterwards, and the server cuts off a stream that was not stopped. No other call may
  // follow.
  void abort() noexcept;

 private:
  void repeat(const std::function<void()>& call);

  const std::chrono::seconds timeout;
  Interrupt& interrupt;
  orvane::Lease& lease;
  std::unique_ptr<orvane::RingWriter> writer;
};

}  // namespace tool
