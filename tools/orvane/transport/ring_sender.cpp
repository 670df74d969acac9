#include "transport/ring_sender.hpp"

#include <cstring>
#include <string>

#include "exit.hpp"

namespace tool {
namespace {

using Clock = std::chrono::steady_clock;

}  // namespace

RingSender::RingSender(orvane::Lease& lease, std::chrono::seconds timeout, Interrupt& interrupt)
    : timeout(timeout),
      interrupt(interrupt),
      lease(lease),
      writer(std::make_unique<orvane::RingWriter>("", lease.ring(), orvane::kMinTimeoutSeconds, 0,
                                                  false)) {}

void RingSender::open() {
  repeat([this] { writer->open(); });
}

void RingSender::writeSegment(const unsigned char* data, std::size_t size) {
  repeat([&] {
    std::memcpy(writer->reserve(size), data, size);
    writer->commit(size);
  });
}

// A reserved place of no bytes has room for the record.
void RingSender::endSegment() {
  repeat([this] { writer->reserve(0); });
  writer->endSegment();
}

void RingSender::close() {
  repeat([this] { writer->reserve(0); });
  repeat([this] { writer->close(); });
}

void RingSender::abort() noexcept {
  try {
    constexpr bool atOnce = true;
    writer->stop(atOnce);
  } catch (...) {
    // The failure that led here is the one to report.
  }
  // Never destroyed, because that would wait for the server, and the command ends now.
  static const orvane::RingWriter* const abandoned = writer.release();
  static_cast<void>(abandoned);
}

void RingSender::repeat(const std::function<void()>& call) {
  const auto deadline = Clock::now() + timeout;
  for (;;) {
    interrupt.check();
    try {
      return call();
    } catch (const Ox_ErrnoException& e) {
      if (e.status() == orvane::kLeaseLost) {
        lease.receipt(0);  // throws the reason for the lease's end, if the server sent one
      }
      if (e.status() != orvane::kStatusTimedOut) {
        throw;
      }
      if (Clock::now() >= deadline) {
        throw Failure(kUnknown, "orvaned has taken nothing for " + std::to_string(timeout.count()) +
                                    " s: is it still running?");
      }
    }
  }
}

}  // namespace tool
