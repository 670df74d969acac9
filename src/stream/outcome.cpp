#include "stream/outcome.hpp"

#include <poll.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <string>

#include "orvane/server_status.hpp"

namespace orvane {

namespace {

// The worker may have died before or after it had stored the end of the stream.
[[noreturn]] void failWithout(const Ox_ErrnoException& error, bool isAnswered) {
  if (error.status() == kLeaseLost && isAnswered) {
    throw StreamError(kLeaseLost,
                      "The stream is stored, but its receipt is lost: " + error.message(),
                      Certainty::stored);
  }
  const bool isUnknown = error.status() == kLeaseLost || error.status() == kWorkerDied;
  throw StreamError(error.status(), error.message(),
                    isUnknown ? Certainty::unknown : Certainty::notStored);
}

std::string textOf(const SentTotals& totals) {
  return std::to_string(totals.bytes) + " bytes in " + std::to_string(totals.segments) +
         " segments";
}

void requireWhole(const Receipt& receipt, const SentTotals& sent) {
  if (receipt.end == StreamEnd::closed && receipt.bytes == sent.bytes &&
      receipt.segments == sent.segments) {
    return;
  }
  throw StreamError(kStreamIncomplete,
                    "The server did not store the whole stream: " + textOf(sent) +
                        " were sent, and the answer is: " + orvane::textOf(receipt),
                    Certainty::notStored);
}

}  // namespace

bool awaitPacket(const Lease& lease, const Deadline& deadline) {
  using std::chrono::milliseconds;
  constexpr milliseconds kLongest(std::numeric_limits<int>::max());
  for (;;) {
    const auto left = std::min(std::chrono::ceil<milliseconds>(deadline.left()), kLongest);
    pollfd readable = {lease.fd(), POLLIN, 0};
    if (poll(&readable, 1, static_cast<int>(left.count())) > 0) {
      return true;
    }
    if (left.count() == 0) {
      return false;
    }
  }
}

Ox_ErrnoException reasonFor(const Ox_ErrnoException& error, Lease& lease) {
  if (error.status() == kLeaseLost) {
    try {
      lease.receipt(0);
    } catch (const Ox_ErrnoException& reason) {
      return reason.status() == kStatusTimedOut || reason.status() == kLeaseLost ? error : reason;
    }
  }
  return error;
}

std::optional<Receipt> takeReceipt(Lease& lease, const SentTotals& sent, bool isAnswered) {
  std::optional<Receipt> receipt;
  try {
    receipt = lease.receipt(0);
  } catch (const Ox_ErrnoException& e) {
    if (e.status() == kStatusTimedOut) {
      return std::nullopt;
    }
    failWithout(e, isAnswered);
  }
  requireWhole(*receipt, sent);
  return receipt;
}

}  // namespace orvane
