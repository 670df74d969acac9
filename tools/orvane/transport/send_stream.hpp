#pragma once

#include <cstdint>
#include <string>

#include "interrupt.hpp"
#include "transport/input.hpp"
#include "transport/polled_writer.hpp"
#include "transport/progress.hpp"

namespace tool {

struct SendOptions {
  std::uint64_t segmentSize = 64 << 20;
  unsigned int timeoutSeconds = 30;
};

// A stream that was stored.
struct Sent {
  std::string stream;  // the id that the server gave to it
  std::uint64_t bytes = 0;
  std::uint64_t segments = 0;
  std::uint64_t batches = 0;
  double seconds = 0;  // from the open record to the receipt
};

// Sends all data of `read` as one stream, and waits for the receipt: on the lease's connection if
// the queue is leased, otherwise in the responses. Throws Failure, Interrupted, or what `read`
// throws, after it has stopped an unfinished stream.
Sent sendStream(PolledWriter& writer, const Reader& read, const SendOptions& options,
                Progress& progress, Interrupt& interrupt, orvane::Lease* lease = nullptr);

}  // namespace tool
