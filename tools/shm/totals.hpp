#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace tool {

// The totals that the server publishes for a queue pair, in a file of their own in the same folder.
// A process that may read the file maps it, and reads it at any time without a lock.
//
//   offset  bytes
//     0      8    "orvstats", written last, when the other fields are filled
//     8      8    version of this layout, 1; with the fields of a ring, 3
//    16      8    process of the server
//    24      8    process of the worker that serves the pair
//    32      8    messages that the send queue holds
//    40      8    bytes of a message
//    48      8    time at which the pair was created: ns since 1970
//    56      8    the same time: ns of CLOCK_MONOTONIC
//    64      8    batches received, valid or not
//    72      8    records stored, of every type that carries data
//    80      8    bytes of their data
//    88      8    segments with data that have ended
//    96      8    streams begun
//   104      8    messages that were refused because they are not a batch
//   112      8    batches that were answered with an error, these messages included
//   120      8    time at which the last batch came: ns of CLOCK_MONOTONIC; 0 before the first
//   128      8    counter of changes of the next field; odd while the worker changes it
//   136     48    id of the open stream, filled up with zeros; all zeros while none is open
//   184      8    the lease's user id, plus 1; 0 for a queue with a fixed name
//   192      8    receipts that the lease's producer has not read; at 4096 no batch is received
//   200      8    bytes of segment data of the stream that began last which are stored for certain:
//                 those of the batches that were answered. They are in the files of its segments
//
// Numbers are in the machine's byte order. The worker locks the file's first byte (F_OFD_SETLK)
// while it lives; F_OFD_GETLK shows whether it does, and does not lock the byte.
struct Totals {
  using Number = std::atomic<std::uint64_t>;

  Number magic{0};
  Number version{0};
  Number server{0};
  Number worker{0};
  Number messages{0};
  Number messageSize{0};
  Number madeAt{0};
  Number madeAtMonotonic{0};
  Number batches{0};
  Number records{0};
  Number bytes{0};
  Number segments{0};
  Number streams{0};
  Number badBatches{0};
  Number errorAnswers{0};
  Number lastBatch{0};
  Number streamChanges{0};
  Number stream[6]{};
  Number userPlusOne{0};
  Number unreadReceipts{0};
  Number answered{0};
};

// The totals of a ring, in a file in memory that the server hands out over its socket. The messages
// and their size are 0.
//
//     0    208    as above
//   208      8    bytes of the ring
//   216      8    bytes that waited in it when the worker last looked
//   224      8    ns that the producer has waited for room or for an answer, as it says
//   232      8    how often it slept meanwhile, as it says
struct RingTotals {
  Totals totals;
  Totals::Number bytes{0};
  Totals::Number waiting{0};
  Totals::Number producerBlocked{0};
  Totals::Number producerSleeps{0};
};

static_assert(Totals::Number::is_always_lock_free, "it is shared between processes");
static_assert(sizeof(Totals) == 208);
static_assert(sizeof(RingTotals) == 240);
static_assert(offsetof(Totals, batches) == 64);
static_assert(offsetof(Totals, stream) == 136);

constexpr std::uint64_t kTotalsMagic = 0x737461747376726f;  // "orvstats"
constexpr std::uint64_t kTotalsVersion = 1;
constexpr std::uint64_t kRingTotalsVersion = 3;

// While a lease has this many unread receipts, its worker receives no batch.
constexpr std::uint64_t kMostUnreadReceipts = 4096;

// Adds to a total. Only the worker writes, so it does not need fetch_add, a locked instruction.
inline void add(Totals::Number& total, std::uint64_t count) {
  total.store(total.load(std::memory_order_relaxed) + count, std::memory_order_relaxed);
}

// Publishes the id of the stream that begins, or "" when a stream ends. An id that is too long is
// cut.
void setStream(Totals& totals, const std::string& id);

// Returns the id of the open stream, "" if none is open, or nothing while the worker changes it.
std::optional<std::string> streamOf(const Totals& totals);

// Returns how many bytes of the segments of this stream were answered; 0 if it is not open.
std::uint64_t answeredOf(const Totals& totals, const std::string& stream);

// Returns the time of CLOCK_MONOTONIC, in nanoseconds.
std::uint64_t monotonicNow();

// Returns whether the worker holds the lock of this file of totals, or nothing if the system does
// not support the question.
std::optional<bool> isWorkerAlive(int totalsFile);

}  // namespace tool
