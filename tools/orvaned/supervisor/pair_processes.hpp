#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "leases/lease_connection.hpp"
#include "store/store_access.hpp"
#include "supervisor/child.hpp"
#include "supervisor/process_context.hpp"

namespace orvaned {

// The supervisor's view of a queue pair: the worker process that serves it, the broker of that
// process, and the actions when the worker ends. The supervisor itself never touches a queue,
// because every user of a queue can make the other side crash or hang in it.
//
// The files of a dead worker are removed, after another confined process has posted a notice to its
// producer. A fixed pair is then created again; a leased one is over, and its connection ends.
//
// Nothing here throws or blocks, except the constructor, which may throw std::bad_alloc.
class PairProcesses {
 public:
  using Clock = Child::Clock;

  enum class Kind {
    fixed,   // found by a name that producers know
    leased,  // one producer's own
    dead     // left by a dead server; only to be removed
  };

  // `user` may own the files of a leased or dead pair, instead of the server.
  PairProcesses(const ProcessContext& context, Kind kind, std::string queueName,
                std::optional<uid_t> user = {}, std::unique_ptr<LeaseConnection> lease = nullptr);

  // Kills the processes.
  ~PairProcesses();
  PairProcesses(const PairProcesses&) = delete;
  PairProcesses& operator=(const PairProcesses&) = delete;

  // Checks the processes; to be called when a child ended, and from time to time.
  void step();

  // Signals the worker to end, and does not start another one.
  void stop();

  // Kills the worker, if it has not ended yet.
  void kill();

  // Kills all processes without waiting for their end.
  void abandon();

  bool isOver() const { return !child && !retryAt; }

  // Can its queues be used?
  bool isServing() const { return child && phase == Phase::serving && child->isReady(); }

  Kind kind() const { return pairKind; }
  const LeaseConnection* lease() const { return connection.get(); }
  const std::string& queueName() const { return name; }

  // The file of a ring's totals, once its worker serves it; otherwise -1.
  int ringTotalsFile() const;

 private:
  enum class Phase { serving, notice };

  void begin();    // removes existing files, then proceeds
  void proceed();  // starts the next worker, if there is to be one
  void serve();
  void startProcesses();
  StreamOrigin originOfStreams() const;
  void postNotice();
  void watchWorker();
  void killWorker(const char* reason);
  void workerEnded(int status);
  void logDeath(int status) const;
  void refuseLease(const std::string& reason);

  const ProcessContext& context;
  const PairProcesses::Kind pairKind;
  const std::string name;
  const std::string loggedName;
  const std::optional<uid_t> user;
  std::unique_ptr<LeaseConnection> connection;
  const std::string subject;  // of the log lines about the pair and of its worker
  std::unique_ptr<Child> child;
  BrokerProcess broker;
  tool::Fd ringTotals;
  Phase phase = Phase::serving;
  const char* notice;
  bool killed = false;
  bool stopping = false;
  bool served = false;  // ever
  bool failed = false;  // the last attempt to create the pair
  std::optional<Clock::time_point> retryAt;
};

}  // namespace orvaned
