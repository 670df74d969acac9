// A reader of a ring that copies nothing, while the producer changes all that it can write: see
// ring_reader.cpp.
//
// Reaches a header that changes after it was checked, or between two looks at it. Whatever comes in
// must lie within its frame, and each record right behind the one before it.

#include <fuzzer/FuzzedDataProvider.h>

#include <numeric>
#include <optional>
#include <orvane/orvane.hpp>
#include <utility>
#include <vector>

#include "require.hpp"
#include "scribbled_producer.hpp"
#include "scribbler.hpp"

using orvane::pvk_shm_message_t;
using orvane::RingReader;
using orvane::ShmBatch;

namespace {

volatile unsigned int sum = 0;  // so that all data is really read

// Reads a batch to its end, or to its mistake.
orvane::pvk_shm_response_t readBatch(RingReader& ring) {
  std::size_t left = kLargestBatch;
  const unsigned char* end = nullptr;
  orvane::pvk_shm_response_t response;
  try {
    for (ShmBatch::Entry entry(nullptr); ring.next(entry);) {
      const std::size_t size = pvk_shm_message_t::kSerializedSize + entry.header.len;
      REQUIRE(entry.header.magic == pvk_shm_message_t::kMagic);
      REQUIRE(size <= left);
      left -= size;
      if (entry.header.len == 0) {
        REQUIRE(entry.data == nullptr);
        end = end == nullptr ? nullptr : end + size;
        continue;
      }
      REQUIRE(end == nullptr || entry.data == end + pvk_shm_message_t::kSerializedSize);
      end = entry.data + entry.header.len;
      sum = std::accumulate(entry.data, end, sum);
    }
  } catch (const Ox_ErrnoException& e) {
    response.assign(e.status(), e.message().c_str());
  }
  return response;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  RingReader ring(orvane::test::kRing);
  ScribbledProducer producer(ring);
  std::optional<Scribbler> scribbler;
  try {
    while (input.remaining_bytes() > 0) {
      scribbler.reset();
      producer.send(input);
      const bool onceBefore = input.ConsumeBool();
      std::vector<Change> changes = producer.changes(input);
      if (!changes.empty()) {
        scribbler.emplace(std::move(changes), producer.counter(), onceBefore);
      }
      for (int turns = input.ConsumeIntegralInRange<int>(1, 12); turns > 0; --turns) {
        if (ring.receiveInPlace()) {
          ring.answer(readBatch(ring));
        }
      }
    }
  } catch (const Ox_ErrnoException&) {
    // The producer broke a rule.
  }
  return 0;
}
