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

RingSource::RingSource(std::uint64_t bytes, Heartbeat& heartbeat)
    : watched(heartbeat), ring(newRing(bytes)) {}

std::optional<std::span<const unsigned char>> RingSource::receive() {
  try {
    const orvane::RingReader::Batch batch = ring->receive();
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
