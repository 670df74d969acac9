#include "stream.hpp"

#include <algorithm>
#include <vector>

#include "await_receipt.hpp"
#include "exit_code.hpp"
#include "orvaned/server_status.hpp"
#include "units.hpp"

namespace tool {
namespace {

namespace ipc = boost::interprocess;

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
    if (e.status() == orvaned::kWorkerDied) {
      throw Failure(kUnknown, "the stream may be lost: " + e.message());
    }
    throw Failure(kRefused, "orvaned refused the stream: " + e.message() + " (status " +
                                std::to_string(e.status()) + ")");
  } catch (const ipc::interprocess_exception& e) {
    throw Failure(kUnknown, std::string("the queue broke, restart orvaned: ") + e.what());
  } catch (const std::exception& e) {
    throw Failure(kUnknown, e.what());
  }
}

void writeSegments(PolledWriter& writer, const Reader& read, std::uint64_t segmentSize, Sent& sent,
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

void requireMatch(const Sent& sent, const Receipt& receipt) {
  if (receipt.end != kClosed) {
    throw Failure(kRefused, "orvaned did not store all of stream " + receipt.stream +
                                ", which it calls " + receipt.end + ": its own log tells why");
  }
  if (receipt.bytes != sent.bytes || receipt.segments != sent.segments) {
    throw Failure(kUnknown, "sent " + std::to_string(sent.bytes) + " bytes in " +
                                counted(sent.segments, "segment") + ", but the receipt of stream " +
                                receipt.stream + " is for " + std::to_string(receipt.bytes) +
                                " bytes in " + counted(receipt.segments, "segment") +
                                ": does another producer use the same queue?");
  }
}

}  // namespace

Sent sendStream(PolledWriter& writer, const Reader& read, const SendOptions& options,
                Progress& progress, Interrupt& interrupt, orvane::Lease* lease) {
  Sent sent;
  const std::uint64_t batchesBefore = writer.batchesSent();
  const auto start = std::chrono::steady_clock::now();
  try {
    writer.open();
    try {
      writeSegments(writer, read, options.segmentSize, sent, progress);
      writer.close();
    } catch (...) {
      writer.abort();
      throw;
    }
    sent.batches = writer.batchesSent() - batchesBefore;
    const std::chrono::seconds timeout(options.timeoutSeconds);
    const Receipt receipt = lease != nullptr ? awaitReceipt(*lease, timeout, interrupt)
                                             : awaitReceipt(writer, timeout, interrupt);
    sent.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    requireMatch(sent, receipt);
    sent.stream = receipt.stream;
  } catch (...) {
    rethrowExplained();
  }
  return sent;
}

}  // namespace tool
