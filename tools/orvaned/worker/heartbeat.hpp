#pragma once

#include <atomic>
#include <cstdint>

namespace orvaned {

// Memory that a worker process and its supervisor share. Only the worker writes.
struct Heartbeat {
  std::atomic<std::uint32_t> queueCalls{0};  // begins and ends are counted: odd while inside a call
  std::atomic<std::uint32_t> messages{0};    // received, and slices of their data compressed
  std::atomic<bool> ready{false};            // its queues can be used
  std::atomic<int> refusedCall{-1};          // the system call that ended it
};

static_assert(std::atomic<std::uint32_t>::is_always_lock_free, "it is shared between processes");

// Marks a call into a queue for as long as it lives: every user of a queue can make the other side
// hang in it.
class QueueCall {
 public:
  explicit QueueCall(Heartbeat& heartbeat) : heartbeat(heartbeat) { count(); }
  ~QueueCall() { count(); }
  QueueCall(const QueueCall&) = delete;
  QueueCall& operator=(const QueueCall&) = delete;

 private:
  // Not fetch_add, which costs as much as the call itself: no other thread counts.
  void count() {
    heartbeat.queueCalls.store(heartbeat.queueCalls.load(std::memory_order_relaxed) + 1,
                               std::memory_order_relaxed);
  }

  Heartbeat& heartbeat;
};

}  // namespace orvaned
