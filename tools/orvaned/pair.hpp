#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "child.hpp"
#include "lease_connection.hpp"
#include "options.hpp"

namespace orvaned {

// A queue pair as the supervisor sees it: the process that serves it, and what is to be done when
// that process ends. The supervisor itself never touches a queue, since whoever may use one can
// make the other side crash or hang in it.
//
// What a worker left behind is removed, but its producer is told first, by another process. A fixed
// pair is then made anew; a leased one is over, and its connection ends.
class Pair {
 public:
  using Clock = Child::Clock;

  enum class Kind {
    fixed,   // found by a name that producers know
    leased,  // one producer's own
    dead     // left by another server; only to be removed
  };

  // What a pair needs of the supervisor.
  struct Surroundings {
    const Options& options;
    // In a new process: closes the files of all others, except this one.
    std::function<void(int keep)> closeOthers;
    // Finishes the streams that a worker process, which died, left in the store.
    std::function<void(const std::string& queue, pid_t worker)> recover;
  };

  Pair(const Surroundings& surroundings, Kind kindOfPair, std::string queueName,
       std::unique_ptr<LeaseConnection> lease = nullptr);

  // Kills the process.
  ~Pair();
  Pair(const Pair&) = delete;
  Pair& operator=(const Pair&) = delete;

  // Looks after the process; to be called when a child ended, and every now and then.
  void step();

  // Tells the worker to end, and does not start another one.
  void stop();

  // Kills the worker, if it has not ended by now.
  void kill();

  bool isOver() const { return !child && !retryAt; }

  // Can its queues be used?
  bool isServing() const { return child && phase == Phase::serving && child->isReady(); }

  Kind kind() const { return pairKind; }
  const LeaseConnection* lease() const { return connection.get(); }

  // For a forked process that has no business with it, unless it is the file to keep.
  void closeConnection(int keep);

 private:
  enum class Phase { serving, farewell };

  void begin();    // removes what is there, then proceeds
  void proceed();  // starts the next worker, if there is to be one
  void serve();
  void sayFarewell();
  void workerEnded(int status);

  const Surroundings& around;
  const Kind pairKind;
  const std::string name;
  const std::string loggedName;
  std::unique_ptr<LeaseConnection> connection;
  std::unique_ptr<Child> child;
  Phase phase = Phase::serving;
  const char* farewell;
  bool killed = false;
  bool stopping = false;
  bool served = false;  // ever
  bool failed = false;  // to make the pair, the last time
  std::optional<Clock::time_point> retryAt;
};

}  // namespace orvaned
