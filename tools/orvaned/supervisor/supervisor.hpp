#pragma once

#include <poll.h>

#include <csignal>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "leases/lease_requests.hpp"
#include "leases/lease_run.hpp"
#include "options.hpp"
#include "shm/fd.hpp"
#include "shm/lock_file.hpp"
#include "supervisor/child.hpp"
#include "supervisor/dead_run_search.hpp"
#include "supervisor/log_writer.hpp"
#include "supervisor/pair_processes.hpp"
#include "supervisor/recovery_process.hpp"
#include "supervisor/service_manager.hpp"

namespace orvaned {

// The server's main process. It takes requests for leases, starts the processes that serve queue
// pairs, watches them, and cleans up after those that died. It never touches a queue or the store,
// it never waits for anything but events, and what it calls may fail but not end it: whatever
// cannot be done now is logged, and done later or refused.
class Supervisor {
 public:
  // Takes the names that it is to serve. Throws std::runtime_error when others have them.
  explicit Supervisor(const Options& options);

  // Returns after SIGTERM, SIGINT or SIGHUP, within 15 seconds: true; false when the fixed pair
  // could not be made at all. supervisorSignals() must be blocked.
  bool run(LogWriter& log);

 private:
  using Clock = Child::Clock;

  void begin();
  void step(LogWriter& log);
  void tryTo(const char* action, const std::function<void()>& task) noexcept;
  void stepRecoveries();
  void stepSearch();
  void tellWhenReady();
  bool isOver() const;
  void waitForEvents();
  void takeSignals();
  void abandonAll();
  void stop();
  void serveDesk();
  void startLease(std::unique_ptr<LeaseConnection> connection);
  std::string limitReachedBy(const ucred& producer, LeaseRequests::Count applications) const;
  std::size_t shmLimit() const;
  void stepPairs();
  std::size_t deadPairs() const;
  void conclude(const std::string& queue, BrokerProcess broker, bool died);
  void keepOnly(std::vector<int> files, LogAccess log) const;

  const Options& options;
  const ProcessContext context;
  ServiceManager manager;
  tool::Fd signals;
  std::vector<pollfd> events;  // what is waited for
  std::optional<tool::LockFile> queueLock;
  std::optional<LeaseRun> leases;
  std::optional<LeaseRequests> desk;
  std::optional<DeadRunSearch> search;
  std::optional<Clock::time_point> searchAgain;
  // Whose streams in the store are to be looked for: queues, and all of dead servers ("").
  std::set<std::string> unfinished;
  std::optional<Clock::time_point> recoverAgain;
  std::list<RecoveryProcess> recoveries;
  std::list<PairProcesses> pairs;
  bool ready = false;  // all that was asked for is served
  std::optional<Clock::time_point> stopAt;
  bool failed = false;  // to make the fixed pair at all
};

// SIGTERM, SIGINT, SIGCHLD, and SIGHUP unless it is ignored.
sigset_t supervisorSignals();

}  // namespace orvaned
