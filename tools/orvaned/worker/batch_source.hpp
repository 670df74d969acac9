#pragma once

#include <cstddef>
#include <optional>
#include <orvane/orvane.hpp>
#include <span>
#include <stdexcept>

#include "shm/totals.hpp"

namespace orvaned {

// The producer broke the rules of the shared memory. Its batches can no longer be received.
class SourceBroken : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Where a worker's batches come from and its responses go: a queue pair or a ring. Exceptions of
// Boost, and SourceBroken, mean that the source cannot be used any more.
class BatchSource {
 public:
  BatchSource() = default;
  virtual ~BatchSource() = default;
  BatchSource(const BatchSource&) = delete;
  BatchSource& operator=(const BatchSource&) = delete;

  // The next message, if there is one; valid until the next call.
  virtual std::optional<std::span<const unsigned char>> receive() = 0;

  // The most messages that can be waiting now, also if a hostile producer forged their number.
  virtual std::size_t waiting() = 0;

  // Sends a response. If the producer receives none, successes are dropped, and the first error is
  // kept until postPending() finds room for it.
  virtual void answer(const orvane::pvk_shm_response_t& response) = 0;
  virtual void postPending() = 0;

  // Removes the responses that no producer has received.
  virtual void discardResponses() = 0;

  // Waits for a message, at most about 0.1 s; or returns false at once, because nothing wakes this
  // process.
  virtual bool wait() = 0;

  // The published totals.
  virtual tool::Totals& totals() = 0;
};

}  // namespace orvaned
