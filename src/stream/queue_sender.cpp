#include "stream/queue_sender.hpp"

#include <algorithm>
#include <boost/interprocess/exceptions.hpp>
#include <string>
#include <thread>

#include "orvane/lease.hpp"
#include "orvane/timeout.hpp"
#include "records/failure.hpp"
#include "writer/limits.hpp"

namespace orvane {

namespace {

namespace ipc = boost::interprocess;

constexpr std::chrono::seconds kSecond(1);
constexpr std::chrono::microseconds kPause(200);

[[noreturn]] void failBroken(const ipc::interprocess_exception& e) {
  const char* const reason = e.get_error_code() == ipc::timeout_when_locking_error
                                 ? "a process was stopped inside it"
                                 : "a process died inside it, or it was removed";
  fail(kLeaseLost, "The stream's queue cannot be used any more: ", reason, "; open another stream");
}

// Calls `use`; an exception of the queue means that the lease is lost.
template <typename Use>
auto orLost(const Use& use) {
  try {
    return use();
  } catch (const ipc::interprocess_exception& e) {
    failBroken(e);
  }
}

// The data bytes of the largest record that an empty batch has room for.
std::uint32_t largestIn(const ShmWriter& writer) {
  std::uint32_t fits = 0;
  std::uint32_t tooLarge = kMaxSegmentSize + 1;
  while (tooLarge - fits > 1) {
    const std::uint32_t half = fits + (tooLarge - fits) / 2;
    (RecordSteps::hasRoomFor(writer, half) ? fits : tooLarge) = half;
  }
  return fits;
}

}  // namespace

QueueSender::QueueSender(const Lease& lease)
    : lease(lease),
      writer(
          orLost([&] { return ShmWriter("", lease.queueName(), kMinTimeoutSeconds, 0, false); })) {
  largest = largestIn(writer);
  if (largest == 0) {
    fail(kStatusDoesNotFit, "The messages of the server's queue are too small for data");
  }
  orLost([&] { writer.open(); });
}

// The queue's own wait has whole seconds and does not see the server's end, so it is never longer
// than a second, and the rest of the time is spent in looking.
bool QueueSender::send(const Deadline& deadline) {
  while (deadline.left() >= kSecond) {
    if (trySend(1)) {
      return true;
    }
    requireServer();
  }
  for (;;) {
    if (trySend(0)) {
      return true;
    }
    requireServer();
    if (deadline.isOver()) {
      return false;
    }
    std::this_thread::sleep_for(std::min<std::chrono::nanoseconds>(kPause, deadline.left()));
  }
}

bool QueueSender::trySend(unsigned int seconds) {
  try {
    orLost([&] { writer.flush_shm_buffer(seconds); });
    return true;
  } catch (const Ox_ErrnoException& e) {
    if (e.status() == kStatusTimedOut) {
      return false;
    }
    throw;
  }
}

void QueueSender::requireServer() const {
  if (!lease.alive()) {
    fail(kLeaseLost, "The server ended the lease: it died or was stopped");
  }
}

}  // namespace orvane
