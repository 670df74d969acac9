#pragma once

#include <memory>
#include <optional>
#include <orvane/orvane.hpp>
#include <ring/producer.hpp>
#include <string>

#include "lease_giver.hpp"
#include "link.hpp"

namespace bench {

// A lease's ring. The receiver is the server that gives the lease; it answers each batch when the
// next one is asked for.
class LeasedRingLink : public Link {
 public:
  // The writer hands a frame over when it has `frame` bytes.
  explicit LeasedRingLink(std::size_t frame = orvane::ring::Producer::kUsualFrame,
                          std::size_t ringBytes = orvane::kDefaultRing);

  void beSender() override;
  void beReceiver() override;
  const orvane::Lease& lease() const { return *leased; }

  // A RingWriter builds and sends the batches.
  unsigned char* room() override { return nullptr; }
  using Link::send;
  void send(std::size_t) override {}

  Bytes receive() override;
  // The records of the next message, where they are.
  template <typename Take>
  void receiveInPlace(const Take& take) {
    for (answer(); !ring->receiveInPlace();) {
      ring->wait();
    }
    owesAnswer = true;
    for (orvane::ShmBatch::Entry entry(nullptr); ring->next(entry);) {
      take(entry);
    }
  }
  void endReceiving() override { answer(); }

 protected:
  // For a stream that takes its lease here.
  orvane::StreamOptions streamOptions() const;
  void endLease() const { giver.endLease(); }

 private:
  void answer();

  const std::size_t frame;
  const std::size_t ringBytes;
  LeaseGiver giver;
  std::optional<orvane::Lease> leased;
  std::unique_ptr<orvane::RingReader> ring;
  bool owesAnswer = false;
};

}  // namespace bench
