#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace tool {

// The totals that the server publishes for a queue pair, in a file of their own beside it. Whoever
// may read the file maps it and looks whenever it likes: there is nothing to lock or to ask.
//
//   offset  bytes
//     0      8    "orvstats", written last: what comes before is whole then
//     8      8    version of this layout, 1
//    16      8    process of the server
//    24      8    process of the worker that serves the pair
//    32      8    messages that the send queue holds
//    40      8    bytes of a message
//    48      8    when the pair was made: ns since 1970
//    56      8    the same: ns of CLOCK_MONOTONIC
//    64      8    batches taken, good or bad
//    72      8    records stored, of every type that carries data
//    80      8    bytes of their data
//    88      8    segments with data that have ended
//    96      8    streams begun
//   104      8    batches that were refused as no batch
//   112      8    batches that were answered with an error, those included
//   120      8    when the last batch came: ns of CLOCK_MONOTONIC; 0 before the first
//   128      8    changes of the id behind it: odd while one is on its way
//   136     48    id of the open stream, filled up with zeros; all zeros while none is open
//   184      8    the lease's user id, plus 1; 0 for a queue with a fixed name
//   192      8    receipts that the lease's producer has not read; at 4096 no batch is taken
//
// Numbers are in the machine's own order. The worker holds a lock of the file's first byte
// (F_OFD_SETLK) while it lives: F_OFD_GETLK tells whether it does, and takes nothing.
struct QueueStats {
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
};

static_assert(QueueStats::Number::is_always_lock_free, "it is shared between processes");
static_assert(sizeof(QueueStats) == 200);
static_assert(offsetof(QueueStats, batches) == 64);
static_assert(offsetof(QueueStats, stream) == 136);

constexpr std::uint64_t kStatsMagic = 0x737461747376726f;  // "orvstats"
constexpr std::uint64_t kStatsVersion = 1;

// A worker takes no more batches of a lease while so many receipts wait to be read.
constexpr std::uint64_t kMostUnreadReceipts = 4096;

// For the worker, which alone writes: not fetch_add, which is a locked instruction.
inline void add(QueueStats::Number& total, std::uint64_t count) {
  total.store(total.load(std::memory_order_relaxed) + count, std::memory_order_relaxed);
}

// Of a stream's begin, or its end: "". An id that is too long is cut.
void setStream(QueueStats& stats, const std::string& id);

// Nothing while it changes.
std::optional<std::string> streamOf(const QueueStats& stats);

// CLOCK_MONOTONIC, in nanoseconds.
std::uint64_t monotonicNow();

// Is the lock of this file of totals held? Nothing where the system does not say.
std::optional<bool> isWorkerAlive(int statsFile);

}  // namespace tool
