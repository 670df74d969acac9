#pragma once

#include <atomic>
#include <cstdint>

namespace orvaned {

// What a worker process and its supervisor share. Only the worker writes.
struct Heartbeat {
  std::atomic<std::uint32_t> queueCalls{0};  // begun and ended ones: odd while inside one
  std::atomic<std::uint32_t> messages{0};    // taken so far
  std::atomic<bool> ready{false};            // its queues can be used
  std::atomic<int> refusedCall{-1};          // the system call that ended it
};

static_assert(std::atomic<std::uint32_t>::is_always_lock_free, "it is shared between processes");

// Marks a call into a queue for as long as it lives: whoever may use a queue can make the other
// side hang in it.
class QueueCall {
 public:
  explicit QueueCall(Heartbeat& shared) : heartbeat(shared) { count(); }
  ~QueueCall() { count(); }
  QueueCall(const QueueCall&) = delete;
  QueueCall& operator=(const QueueCall&) = delete;

 private:
  // Not fetch_add, which costs as much as the call itself: nobody else counts.
  void count() {
    heartbeat.queueCalls.store(heartbeat.queueCalls.load(std::memory_order_relaxed) + 1,
                               std::memory_order_relaxed);
  }

  Heartbeat& heartbeat;
};

}  // namespace orvaned
