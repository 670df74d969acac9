#pragma once

#include <cstdint>
#include <string>

#include "interrupt.hpp"
#include "transport/input.hpp"
#include "transport/polled_writer.hpp"
#include "transport/progress.hpp"
#include "transport/ring_sender.hpp"

namespace tool {

struct SendOptions {
  std::uint64_t segmentSize = 64 << 20;
  unsigned int timeoutSeconds = 30;
  bool quiet = false;  // show no progress
  bool json = false;   // print what was sent as JSON
};

// A stream that was stored.
struct Sent {
  std::string stream;  // as its receipt names it
  std::uint64_t records = 0;
  std::uint64_t bytes = 0;
  std::uint64_t segments = 0;
  std::uint64_t batches = 0;   // through a queue
  double transferSeconds = 0;  // through a queue: until the server had taken the last batch
  double seconds = 0;          // from the open record to the receipt, which waits for the disk
};

// Sends all data of `read` as one stream, and waits for the receipt: on the lease's connection if
// there is a lease, otherwise in the responses. Throws Failure, Interrupted, or what `read` throws,
// after it has stopped an unfinished stream.
Sent sendStream(PolledWriter& writer, const Reader& read, const SendOptions& options,
                Progress& progress, Interrupt& interrupt, orvane::Lease* lease = nullptr);

// The same through a lease's ring.
Sent sendStream(RingSender& sender, const Reader& read, const SendOptions& options,
                Progress& progress, Interrupt& interrupt, orvane::Lease& lease);

}  // namespace tool
