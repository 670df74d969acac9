#pragma once

#include <csignal>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "child.hpp"
#include "common/lock_file.hpp"
#include "fd.hpp"
#include "lease_desk.hpp"
#include "lease_run.hpp"
#include "options.hpp"
#include "pair.hpp"
#include "recovery.hpp"
#include "service_manager.hpp"

namespace orvaned {

// The server's main process. It takes requests for leases, starts a worker process for each queue
// pair, watches them, and cleans up after those that died; it neither stores nor touches a queue.
class Supervisor {
 public:
  // Takes the names that it is to serve. Throws std::runtime_error when others have them.
  explicit Supervisor(const Options& options);

  // Returns after SIGTERM, SIGINT or SIGHUP, within 15 seconds: true; false when the fixed pair
  // could not be made at all. supervisorSignals() must be blocked.
  bool run();

 private:
  using Clock = Child::Clock;

  void cleanUpAfterDeadRuns();
  void recoverWhere(const std::function<bool(const UnfinishedStream&)>& isDead);
  void tellWhenReady();
  bool isOver() const;
  void waitForEvents();
  void takeSignals();
  void stop();
  void serveDesk();
  std::string limitReachedBy(const ucred& producer, LeaseDesk::Count applications) const;
  void stepPairs();
  void recoverAfter(const std::string& queue, pid_t worker);
  void recover(const std::function<void()>& task);
  void closeOthers(int keep);

  const Options& options;
  const Pair::Surroundings forPairs;
  ServiceManager manager;
  Fd signals;
  std::optional<tool::LockFile> queueLock;
  std::optional<LeaseRun> leases;
  std::optional<LeaseDesk> desk;
  std::vector<LeaseDesk::Connection> asked;  // what becomes pairs just now
  std::vector<tool::LockFile> deadRuns;
  std::optional<Clock::time_point> cleanUpAgain;
  std::list<Pair> pairs;
  std::list<Child> recoveries;
  bool ready = false;  // all that was asked for is served
  std::optional<Clock::time_point> stopAt;
  bool failed = false;  // to make the fixed pair at all
};

// SIGTERM, SIGINT, SIGCHLD, and SIGHUP unless it is ignored.
sigset_t supervisorSignals();

}  // namespace orvaned
