#include "transport/ring_sender.hpp"

#include <cstring>

namespace tool {
namespace {

using Clock = std::chrono::steady_clock;

}  // namespace

RingSender::RingSender(const orvane::Lease& lease, std::chrono::seconds timeout,
                       Interrupt& interrupt)
    : timeout(timeout),
      interrupt(interrupt),
      writer("", lease.ring(), orvane::kMinTimeoutSeconds, orvane::kMinTimeoutSeconds, false) {}

void RingSender::open() {
  repeat([this] { writer.open(); });
}

void RingSender::writeSegment(const unsigned char* data, std::size_t size) {
  repeat([&] {
    std::memcpy(writer.reserve(size), data, size);
    writer.commit(size);
  });
}

// A reserved place of no bytes has room for the record.
void RingSender::endSegment() {
  repeat([this] { writer.reserve(0); });
  writer.endSegment();
}

void RingSender::close() {
  repeat([this] { writer.reserve(0); });
  repeat([this] { writer.close(); });
}

void RingSender::abort() noexcept {
  try {
    writer.stop(false);
  } catch (...) {
    // The failure that led here is the one to report.
  }
}

void RingSender::repeat(const std::function<void()>& call) {
  const auto deadline = Clock::now() + timeout;
  for (;;) {
    interrupt.check();
    try {
      return call();
    } catch (const Ox_ErrnoException& e) {
      if (e.status() != orvane::kStatusTimedOut || Clock::now() >= deadline) {
        throw;
      }
    }
  }
}

}  // namespace tool
