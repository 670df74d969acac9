#include "await_receipt.hpp"

#include "backoff.hpp"
#include "exit_code.hpp"

namespace tool {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kProbeAfter(50);

// The receipt among the answers that are there. Only when the server has taken everything do they
// count: what is there before may still be meant for an earlier stream.
std::optional<Receipt> takeReceipt(PolledWriter& writer) {
  if (!writer.allTaken()) {
    return std::nullopt;
  }
  std::optional<Receipt> receipt;
  std::optional<Ox_ErrnoException> error;
  for (const orvane::pvk_shm_response_t& answer : writer.takeAnswers()) {
    if (answer.status != 0) {
      error.emplace(answer.status, answer.text, "");
    } else if (const auto found = parseReceipt(answer.text)) {
      receipt = found;
    }
  }
  // A whole stream is stored whatever came later, such as the end of the server.
  if (error && (!receipt || receipt->end != kClosed)) {
    throw Ox_ErrnoException(*error);
  }
  return receipt;
}

[[noreturn]] void failWithoutReceipt(std::chrono::seconds timeout) {
  throw Failure(kUnknown, "orvaned sent no receipt within " + std::to_string(timeout.count()) +
                              " s: is it still running?");
}

std::optional<Receipt> takeReceipt(orvane::Lease& lease) {
  std::string text;
  try {
    text = lease.receipt(0);
  } catch (const Ox_ErrnoException& e) {
    if (e.status() == orvane::kStatusTimedOut) {
      return std::nullopt;
    }
    throw;
  }
  if (auto receipt = parseReceipt(text)) {
    return receipt;
  }
  throw Failure(kUnknown, "orvaned, of another release, sent what is no receipt here: " + text);
}

}  // namespace

Receipt awaitReceipt(PolledWriter& writer, std::chrono::seconds timeout, Interrupt& interrupt) {
  const auto start = Clock::now();
  auto nextProbe = start + kProbeAfter;
  for (Backoff backoff(interrupt);; backoff.pause()) {
    // In this order: what the server answered before it left counts.
    const bool serverLeft = writer.serverLeft();
    if (const auto receipt = takeReceipt(writer)) {
      return *receipt;
    }
    if (serverLeft) {
      throw Failure(kUnknown, "orvaned removed the queue without a receipt for the stream");
    }
    const auto now = Clock::now();
    if (now - start >= timeout) {
      failWithoutReceipt(timeout);
    }
    if (now >= nextProbe && writer.allTaken()) {
      writer.probe();
      nextProbe = now + kProbeAfter;
    }
  }
}

Receipt awaitReceipt(orvane::Lease& lease, std::chrono::seconds timeout, Interrupt& interrupt) {
  const auto start = Clock::now();
  for (Backoff backoff(interrupt);; backoff.pause()) {
    if (const auto receipt = takeReceipt(lease)) {
      return *receipt;
    }
    if (Clock::now() - start >= timeout) {
      failWithoutReceipt(timeout);
    }
  }
}

}  // namespace tool
