#pragma once

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace forward {

// The streams that are to be forwarded, for the threads that do it.
class WorkQueue {
 public:
  // Adds those that are not in it, waiting or taken.
  void add(const std::vector<std::string>& ids) {
    const std::lock_guard lock(mutex);
    for (const std::string& id : ids) {
      if (!taken.contains(id)) {
        waiting.insert(id);
      }
    }
    changed.notify_all();
  }

  // Waits for a stream; returns nothing when the queue is closed.
  std::optional<std::string> take() {
    std::unique_lock lock(mutex);
    changed.wait(lock, [this] { return isClosed || !waiting.empty(); });
    if (isClosed) {
      return std::nullopt;
    }
    auto first = waiting.extract(waiting.begin());
    return *taken.insert(std::move(first.value())).first;
  }

  // To be called when a stream that was taken has been dealt with.
  void finish(const std::string& id) {
    const std::lock_guard lock(mutex);
    taken.erase(id);
  }

  void close() {
    const std::lock_guard lock(mutex);
    isClosed = true;
    changed.notify_all();
  }

  bool hasWaiting() const {
    const std::lock_guard lock(mutex);
    return !waiting.empty();
  }

  bool isIdle() const {
    const std::lock_guard lock(mutex);
    return waiting.empty() && taken.empty();
  }

 private:
  mutable std::mutex mutex;
  std::condition_variable changed;
  std::set<std::string> waiting;
  std::set<std::string> taken;
  bool isClosed = false;
};

}  // namespace forward
