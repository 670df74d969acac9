#pragma once

#include <chrono>
#include <exception>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "link.hpp"
#include "marks.hpp"
#include "metrics.hpp"
#include "options.hpp"
#include "shm/fd.hpp"
#include "stop.hpp"
#include "store_watch.hpp"
#include "stream_sender.hpp"
#include "work_queue.hpp"

namespace forward {

// Forwards the streams of a store. The calling thread finds them; other threads send one stream
// each.
class Forwarder {
 public:
  // Throws std::runtime_error if the store cannot be used. Signals that end the program must be
  // blocked.
  explicit Forwarder(const Options& options);
  ~Forwarder();
  Forwarder(const Forwarder&) = delete;
  Forwarder& operator=(const Forwarder&) = delete;

  // Returns the exit code. Throws Refused, and std::runtime_error.
  int run();

 private:
  using Clock = std::chrono::steady_clock;

  void step();
  void look();
  void takeChanges();
  bool waitForWork();
  bool isAllForwarded();
  bool hasFailedNow();
  int conclude(bool isInterrupted);
  void writeMetricsNow();
  void endThreads();

  void work();
  void forward(StreamSender& sender, const std::string& id);
  void wake() const;
  void requireHealth();

  const Options options;
  Metrics metrics;
  Stop stop;
  Link link;
  Marks marks;
  StoreWatch watch;
  WorkQueue queue;
  tool::Fd signals;
  tool::Fd wakeUp;

  // Used by the calling thread only.
  Clock::time_point nextLook = Clock::now();
  Clock::time_point nextMetrics = Clock::now();
  Clock::time_point nextCleaning = Clock::now();
  const Clock::time_point deadline;
  bool isVerifying;
  std::string verified;  // the last id
  bool hasMore = false;  // the last look has found more than it has returned
  bool foundAny = true;  // the last look has, or a look is still to be made
  std::string metricsTrouble;

  std::mutex mutex;  // protects the rest
  std::exception_ptr failure;
  std::set<std::string> unreadable;
  bool hasFailed = false;  // a stream, since the last look
  std::vector<std::thread> threads;
};

}  // namespace forward
