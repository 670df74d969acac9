#pragma once

#include <optional>
#include <orvane/orvane.hpp>

#include "lease_giver.hpp"
#include "leased_ring_link.hpp"
#include "queue_link.hpp"

namespace bench {

// The two links of an orvane::Stream, which takes its lease itself.
class StreamSource {
 public:
  virtual ~StreamSource() = default;
  orvane::Stream& stream() { return *made; }

 protected:
  std::optional<orvane::Stream> made;
};

class StreamRingLink : public LeasedRingLink, public StreamSource {
 public:
  explicit StreamRingLink(std::size_t ringBytes)
      : LeasedRingLink(orvane::ring::Producer::kUsualFrame, ringBytes) {}
  void beSender() override { made.emplace(streamOptions()); }
  void endReceiving() override {
    LeasedRingLink::endReceiving();
    endLease();
  }
};

class StreamQueueLink : public AnsweringQueueLink, public StreamSource {
 public:
  explicit StreamQueueLink(Geometry geometry) : AnsweringQueueLink(geometry, Wait::polling) {}
  void beSender() override {
    made.emplace(
        orvane::StreamOptions{.socket = giver.socket(), .transport = orvane::Transport::queue});
  }
  void beReceiver() override { giver.give(packetOf(orvane::LeaseGranted{name()})); }
  void endReceiving() override { giver.endLease(); }

 private:
  LeaseGiver giver;
};

}  // namespace bench
