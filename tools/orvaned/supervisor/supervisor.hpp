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

// The server's main process. It receives requests for leases, starts the processes that serve queue
// pairs, watches them, and cleans up after those that died. It never touches a queue, nor the store
// after its start, and it waits only for events. A failure does not end it: the failure is logged,
// and the action is repeated later or refused.
class Supervisor {
 public:
  // Locks the names that it is to serve. Throws std::runtime_error if another process has one.
  explicit Supervisor(const Options& options);

  // Returns true within 15 seconds after SIGTERM, SIGINT or SIGHUP; false if the fixed pair could
  // not be created even once. supervisorSignals() must be blocked.
  bool run(LogWriter& log);

 private:
  using Clock = Child::Clock;

  void begin();
  void step(LogWriter& log);
  void tryTo(const char* action, const std::function<void()>& task) noexcept;
  void stepRecoveries();
  void stepSearch();
  void reportReady();
  bool isOver() const;
  void waitForEvents();
  void receiveSignals();
  void abandonAll();
  void stop();
  void serveRequests();
  void startLease(std::unique_ptr<LeaseConnection> connection);
  LeaseRequests::Totals nextTotals(uid_t user, const std::string& after) const;
  void stepPairs();
  std::size_t deadPairs() const;
  void conclude(const std::string& queue, BrokerProcess broker, bool died);
  void keepOnly(std::vector<int> files, LogAccess log) const;

  const Options& options;
  const ProcessContext context;
  ServiceManager manager;
  tool::Fd signals;
  std::vector<pollfd> events;  // for poll()
  std::optional<tool::LockFile> queueLock;
  std::optional<LeaseRun> leases;
  std::optional<LeaseRequests> requests;
  std::optional<DeadRunSearch> search;
  std::optional<Clock::time_point> searchAgain;
  // Queues whose streams are to be searched for in the store; "" stands for all dead servers.
  std::set<std::string> unfinished;
  std::optional<Clock::time_point> recoverAgain;
  std::list<RecoveryProcess> recoveries;
  std::list<PairProcesses> pairs;
  bool ready = false;  // everything that the options ask for is served
  std::optional<Clock::time_point> stopAt;
  bool failed = false;  // the fixed pair could not be created even once
};

// SIGTERM, SIGINT, SIGCHLD, and SIGHUP unless it is ignored.
sigset_t supervisorSignals();

}  // namespace orvaned
