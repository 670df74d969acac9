#pragma once

#include <cstdint>
#include <optional>

#include "orvane/lease.hpp"
#include "orvane/stream.hpp"
#include "stream/deadline.hpp"

namespace orvane {

// What a stream has sent.
struct SentTotals {
  std::uint64_t bytes = 0;
  std::uint64_t segments = 0;  // that have data
};

// Waits until there is a packet at a lease's connection, or its end; returns false after the
// deadline.
bool awaitPacket(const Lease& lease, const Deadline& deadline);

// Returns the reason that the server gave for the end of a lease, or `error` if it gave none.
Ox_ErrnoException reasonFor(const Ox_ErrnoException& error, Lease& lease);

// Takes the receipt of a stream whose end was sent, if there is a packet. Throws StreamError if it
// is not that of the whole stream, or if none will come; `isAnswered` tells that the server has
// answered the end of the stream without an error.
std::optional<Receipt> takeReceipt(Lease& lease, const SentTotals& sent, bool isAnswered);

}  // namespace orvane
