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
  std::string stream;  // the server's name for it
  std::uint64_t bytes = 0;
  std::uint64_t segments = 0;
  std::uint64_t batches = 0;
  double seconds = 0;  // from the open record to the receipt
};

// Sends everything that `read` delivers as one stream, and waits for the server's word that it is
// stored: over the lease's connection where the queue is leased, else in its answers. When this
// throws, the stream was aborted: Failure, Interrupted, or what `read` threw.
Sent sendStream(PolledWriter& writer, const Reader& read, const SendOptions& options,
                Progress& progress, Interrupt& interrupt, orvane::Lease* lease = nullptr);

}  // namespace tool
