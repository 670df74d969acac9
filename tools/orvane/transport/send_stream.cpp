#include "transport/send_stream.hpp"

#include <algorithm>
#include <chrono>
#include <functional>
#include <optional>
#include <orvane/server_status.hpp>
#include <vector>

#include "exit.hpp"
#include "reason.hpp"
#include "transport/backoff.hpp"
#include "units.hpp"

namespace tool {
namespace {

namespace ipc = boost::interprocess;
using orvane::parseReceipt;
using orvane::Receipt;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kProbeAfter(50);
constexpr char kNoHint[] = "";

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Gives the exceptions of the library and of the queue their meaning for the command's user.
[[noreturn]] void rethrowExplained() {
  try {
    throw;
  } catch (const Failure&) {
    throw;
  } catch (const Ox_ErrnoException& e) {
    if (e.status() == orvane::kStatusTimedOut) {
      throw Failure(kUnknown, e.message() + ": does another producer use the same queue?");
    }
    if (e.status() == orvane::kLeaseLost) {
      throw Failure(kUnknown, "orvaned ended the lease without a receipt for the stream");
    }
    if (e.status() == orvane::kWorkerDied) {
      throw Failure(kUnknown, "the stream may be lost: " + e.message());
    }
    throw Failure(kRefused, "orvaned refused the stream: " + e.message() + " (status " +
                                std::to_string(e.status()) + ")");
  } catch (const ipc::interprocess_exception& e) {
    throw Failure(kUnknown, "the queue broke, restart orvaned: " + reasonOf(e));
  } catch (const std::exception& e) {
    throw Failure(kUnknown, reasonOf(e));
  }
}

template <typename Writer>
void writeSegments(Writer& writer, const Reader& read, std::uint64_t segmentSize, Sent& sent,
                   Progress& progress) {
  std::vector<unsigned char> record(writer.recordSize());
  std::uint64_t inSegment = 0;
  std::size_t asked = 0;
  std::size_t got = 0;
  do {
    asked = std::min<std::uint64_t>(record.size(), segmentSize - inSegment);
    got = read(record.data(), asked);
    if (got > 0) {
      writer.writeSegment(record.data(), got);
      progress.advance(got);
      sent.bytes += got;
      inSegment += got;
    }
    if (inSegment == segmentSize || (got < asked && inSegment > 0)) {
      writer.endSegment();
      ++sent.segments;
      inSegment = 0;
    }
  } while (got == asked);
}

// Returns the receipt if one of the waiting responses carries it. Responses count only when the
// server has received all batches: before that, they may belong to an earlier stream.
std::optional<Receipt> receiveReceipt(PolledWriter& writer) {
  if (!writer.allReceived()) {
    return std::nullopt;
  }
  std::optional<Receipt> receipt;
  std::optional<Ox_ErrnoException> error;
  for (const orvane::pvk_shm_response_t& response : writer.receiveResponses()) {
    if (response.status != 0) {
      error.emplace(response.status, response.text, "");
    } else if (const auto found = parseReceipt(response.text)) {
      receipt = found;
    }
  }
  // A stream that is closed is stored, also if an error such as the server's end followed.
  if (error && (!receipt || receipt->end != orvane::StreamEnd::closed)) {
    throw Ox_ErrnoException(*error);
  }
  return receipt;
}

[[noreturn]] void failWithoutReceipt(std::chrono::seconds timeout) {
  throw Failure(kUnknown, "orvaned sent no receipt within " + std::to_string(timeout.count()) +
                              " s: is it still running?");
}

std::optional<Receipt> receiveReceipt(orvane::Lease& lease) {
  try {
    return lease.receipt(0);
  } catch (const Ox_ErrnoException& e) {
    if (e.status() == orvane::kStatusTimedOut) {
      return std::nullopt;
    }
    throw;
  }
}

// Waits for the receipt of the stream that `writer` just closed. The writer itself may have
// received the response that carries it, so after a while an empty batch asks for it again. Throws
// Failure if the server left or nothing came in time, Ox_ErrnoException if it refused, Interrupted.
// `onTaken` is called once, when the server has taken all batches.
Receipt awaitReceipt(PolledWriter& writer, std::chrono::seconds timeout, Interrupt& interrupt,
                     const std::function<void()>& onTaken) {
  const auto start = Clock::now();
  bool taken = false;
  auto nextProbe = start + kProbeAfter;
  for (Backoff backoff(interrupt);; backoff.pause()) {
    // In this order, because a receipt that the server sent before it left counts.
    const bool serverLeft = writer.serverLeft();
    const bool serverDied = writer.serverDied();
    if (!taken && writer.allReceived()) {
      taken = true;
      onTaken();
    }
    if (const auto receipt = receiveReceipt(writer)) {
      return *receipt;
    }
    if (serverDied) {
      throw Failure(kUnknown, "orvaned was killed before it sent a receipt for the stream");
    }
    if (serverLeft) {
      throw Failure(kUnknown, "orvaned removed the queue without a receipt for the stream");
    }
    const auto now = Clock::now();
    if (now - start >= timeout) {
      failWithoutReceipt(timeout);
    }
    if (now >= nextProbe && writer.allReceived()) {
      writer.probe();
      nextProbe = now + kProbeAfter;
    }
  }
}

// Waits for the receipt on a lease's connection, which only this function reads. kLeaseLost is
// thrown if the server left.
Receipt awaitReceipt(orvane::Lease& lease, std::chrono::seconds timeout, Interrupt& interrupt) {
  const auto start = Clock::now();
  for (Backoff backoff(interrupt);; backoff.pause()) {
    if (const auto receipt = receiveReceipt(lease)) {
      return *receipt;
    }
    if (Clock::now() - start >= timeout) {
      failWithoutReceipt(timeout);
    }
  }
}

// `hint` follows the message about a stream that is not whole.
void requireMatch(const Sent& sent, const Receipt& receipt, const char* hint) {
  if (receipt.end != orvane::StreamEnd::closed) {
    throw Failure(kRefused, "orvaned did not store all of stream " + receipt.stream +
                                ", which it calls " + textOf(receipt.end) +
                                ": its own log tells why" + hint);
  }
  if (receipt.bytes != sent.bytes || receipt.segments != sent.segments) {
    throw Failure(kUnknown, "sent " + std::to_string(sent.bytes) + " bytes in " +
                                counted(sent.segments, "segment") + ", but the receipt of stream " +
                                receipt.stream + " is for " + std::to_string(receipt.bytes) +
                                " bytes in " + counted(receipt.segments, "segment") +
                                ": does another producer use the same queue?");
  }
}

// `awaitReceipt` waits for the receipt of the stream that was just closed.
template <typename Writer, typename AwaitReceipt>
Sent send(Writer& writer, const Reader& read, const SendOptions& options, Progress& progress,
          const char* hint, const AwaitReceipt& awaitReceipt) {
  Sent sent;
  const auto start = Clock::now();
  try {
    writer.open();
    try {
      writeSegments(writer, read, options.segmentSize, sent, progress);
      writer.close();
    } catch (...) {
      writer.abort();
      throw;
    }
    const Receipt receipt = awaitReceipt();
    sent.seconds = secondsSince(start);
    requireMatch(sent, receipt, hint);
    sent.stream = receipt.stream;
    sent.records = receipt.records;
  } catch (...) {
    rethrowExplained();
  }
  return sent;
}

}  // namespace

Sent sendStream(PolledWriter& writer, const Reader& read, const SendOptions& options,
                Progress& progress, Interrupt& interrupt, orvane::Lease* lease) {
  const std::uint64_t batchesBefore = writer.batchesSent();
  const auto start = Clock::now();
  std::uint64_t batches = 0;
  double transferSeconds = 0;
  const char* const hint =
      lease == nullptr ? "; two producers on one queue look like this" : kNoHint;
  Sent sent = send(writer, read, options, progress, hint, [&] {
    batches = writer.batchesSent() - batchesBefore;
    const std::chrono::seconds timeout(options.timeoutSeconds);
    const auto onTaken = [&] { transferSeconds = secondsSince(start); };
    return lease != nullptr ? awaitReceipt(*lease, timeout, interrupt)
                            : awaitReceipt(writer, timeout, interrupt, onTaken);
  });
  sent.batches = batches;
  // The receipt may have come between two looks.
  sent.transferSeconds = transferSeconds > 0 ? transferSeconds : sent.seconds;
  return sent;
}

Sent sendStream(RingSender& sender, const Reader& read, const SendOptions& options,
                Progress& progress, Interrupt& interrupt, orvane::Lease& lease) {
  return send(sender, read, options, progress, kNoHint, [&] {
    return awaitReceipt(lease, std::chrono::seconds(options.timeoutSeconds), interrupt);
  });
}

}  // namespace tool
