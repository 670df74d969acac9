#pragma once

#include <pthread.h>
#include <signal.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <functional>

namespace orvane::test {

// Returns when the thread, or a process's only one, sleeps in a futex: as long as nobody holds the
// queue's lock, it then waits in one of the queue's condition variables, outside the lock.
void awaitSleep(pid_t thread);

// A thread whose call is about to wait.
class WaitingThread {
 public:
  explicit WaitingThread(std::function<void()> threadCall);
  ~WaitingThread();
  WaitingThread(const WaitingThread&) = delete;
  WaitingThread& operator=(const WaitingThread&) = delete;

  void awaitSleep() const { test::awaitSleep(id); }
  void awaitWrite() const;  // until it is writing to a descriptor without room
  void signal(int number) const { pthread_kill(thread, number); }
  void cancel() const { pthread_cancel(thread); }

  // Waits for its end; false when that was a cancellation.
  bool returns();

 private:
  static void* run(void* self);

  std::function<void()> call;
  std::atomic<pid_t> id = 0;
  pthread_t thread = {};
  bool joined = false;
};

// The least that a wait may take: a deadline has whole seconds, reckoned from a clock that lags by
// up to a tick of 10 ms.
constexpr double earliest(unsigned int timeout) {
  return timeout - 1.02;
}

class Stopwatch {
 public:
  double seconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  }

 private:
  std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
};

}  // namespace orvane::test
