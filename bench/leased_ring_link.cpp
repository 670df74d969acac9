#include "leased_ring_link.hpp"

#include <array>
#include <utility>

namespace bench {
namespace {

constexpr unsigned kTimeout = 30;

}  // namespace

LeasedRingLink::LeasedRingLink(std::size_t frame, std::size_t ringBytes)
    : frame(frame), ringBytes(ringBytes) {}

void LeasedRingLink::beSender() {
  leased.emplace(giver.socket(), kTimeout, orvane::Transport::ring, ringBytes);
  leased->ring()->setUsualFrame(frame);
}

void LeasedRingLink::beReceiver() {
  ring = std::make_unique<orvane::RingReader>(ringBytes);
  const std::array<int, 2> files = {ring->producersFile(), ring->serversFile()};
  giver.give(packetOf(orvane::RingGranted{"ring", ringBytes}), files);
}

void LeasedRingLink::answer() {
  if (std::exchange(owesAnswer, false)) {
    ring->answer(orvane::pvk_shm_response_t());
  }
}

Bytes LeasedRingLink::receive() {
  orvane::RingReader::Batch batch = {};
  for (answer(); (batch = ring->receive()).data == nullptr;) {
    ring->wait();
  }
  owesAnswer = true;
  return {batch.data, batch.size};
}

orvane::StreamOptions LeasedRingLink::streamOptions() const {
  return {.socket = giver.socket(),
          .timeout = kTimeout,
          .transport = orvane::Transport::ring,
          .ringBytes = ringBytes};
}

}  // namespace bench
