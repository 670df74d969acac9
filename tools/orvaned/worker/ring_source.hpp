#pragma once

#include <cstdint>
#include <memory>

#include "worker/batch_source.hpp"
#include "worker/heartbeat.hpp"

namespace orvaned {

// A lease's ring. Its memory has no name and ends with the processes that use it.
class RingSource : public BatchSource {
 public:
  // Throws std::runtime_error when the memory cannot be allocated. `heartbeat` counts the messages.
  RingSource(std::uint64_t bytes, Heartbeat& heartbeat, tool::RingTotals& totals);

  // The files for the producer.
  const orvane::RingReader& reader() const { return *ring; }

  std::optional<std::span<const unsigned char>> receive() override;
  std::size_t waiting() override;
  void answer(const orvane::pvk_shm_response_t& response) override;
  void postPending() override {}       // receive() does it
  void discardResponses() override {}  // the producer does it before it opens a stream
  bool wait() override;
  tool::Totals& totals() override { return published.totals; }

 private:
  void publishWaits();

  Heartbeat& watched;
  const std::unique_ptr<orvane::RingReader> ring;
  tool::RingTotals& published;
};

}  // namespace orvaned
