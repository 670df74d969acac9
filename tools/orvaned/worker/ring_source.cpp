#include "worker/ring_source.hpp"

#include <stdexcept>

namespace orvaned {
namespace {

std::unique_ptr<orvane::RingReader> newRing(std::uint64_t bytes) {
  try {
    return std::make_unique<orvane::RingReader>(bytes);
  } catch (const Ox_ErrnoException& e) {
    throw std::runtime_error(e.message());
  }
}

}  // namespace

RingSource::RingSource(std::uint64_t bytes, Heartbeat& heartbeat, tool::RingTotals& totals)
    : watched(heartbeat), ring(newRing(bytes)), published(totals) {}

std::optional<std::span<const unsigned char>> RingSource::receive() {
  try {
    const orvane::RingReader::Batch batch = ring->receive();
    publishWaits();
    if (batch.data == nullptr) {
      return std::nullopt;
    }
    watched.messages.store(watched.messages.load(std::memory_order_relaxed) + 1,
                           std::memory_order_relaxed);
    return std::span(batch.data, batch.size);
  } catch (const Ox_ErrnoException& e) {
    throw SourceBroken(e.message());
  }
}

void RingSource::publishWaits() {
  constexpr auto relaxed = std::memory_order_relaxed;
  const orvane::RingReader::Waits waits = ring->producersWaits();
  published.waiting.store(ring->waiting(), relaxed);
  published.producerBlocked.store(waits.nanoseconds, relaxed);
  published.producerSleeps.store(waits.sleeps, relaxed);
}

// A frame takes at least one line of 64 bytes.
std::size_t RingSource::waiting() {
  constexpr std::uint64_t kSmallestFrame = 64;
  return ring->waiting() / kSmallestFrame;
}

void RingSource::answer(const orvane::pvk_shm_response_t& response) {
  ring->answer(response);
}

bool RingSource::wait() {
  try {
    ring->wait();
  } catch (const Ox_ErrnoException& e) {
    throw SourceBroken(e.message());
  }
  return true;
}

}  // namespace orvaned
