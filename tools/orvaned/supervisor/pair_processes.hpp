#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "leases/lease_connection.hpp"
#include "supervisor/child.hpp"
#include "supervisor/process_context.hpp"

namespace orvaned {

// A queue pair as the supervisor sees it: the worker process that serves it, the broker of that
// process, and what is to be done when the worker ends. The supervisor itself never touches a
// queue, since whoever may use one can make the other side crash or hang in it.
//
// What a dead worker left behind is removed, but its producer is told first, by another confined
// process. A fixed pair is then made anew; a leased one is over, and its connection ends.
//
// Nothing here throws or blocks, except the constructor, which may throw std::bad_alloc.
class PairProcesses {
 public:
  using Clock = Child::Clock;

  enum class Kind {
    fixed,   // found by a name that producers know
    leased,  // one producer's own
    dead     // left by another server; only to be removed
  };

  // `user` is whose the files of a leased or dead pair may be, besides the server's own.
  PairProcesses(const ProcessContext& pairContext, Kind kindOfPair, std::string queueName,
                std::optional<uid_t> producersUser = {},
                std::unique_ptr<LeaseConnection> lease = nullptr);

  // Kills the processes.
  ~PairProcesses();
  PairProcesses(const PairProcesses&) = delete;
  PairProcesses& operator=(const PairProcesses&) = delete;

  // Looks after the processes; to be called when a child ended, and every now and then.
  void step();

  // Tells the worker to end, and does not start another one.
  void stop();

  // Kills the worker, if it has not ended by now.
  void kill();

  // Kills all processes; nobody waits for their end.
  void abandon();

  bool isOver() const { return !child && !retryAt; }

  // Can its queues be used?
  bool isServing() const { return child && phase == Phase::serving && child->isReady(); }

  Kind kind() const { return pairKind; }
  const LeaseConnection* lease() const { return connection.get(); }

 private:
  enum class Phase { serving, notice };

  void begin();    // removes what is there, then proceeds
  void proceed();  // starts the next worker, if there is to be one
  void serve();
  void startProcesses();
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
  const std::string subject;  // of the lines about it, its worker's too
  std::unique_ptr<Child> child;
  BrokerProcess broker;
  Phase phase = Phase::serving;
  const char* notice;
  bool killed = false;
  bool stopping = false;
  bool served = false;  // ever
  bool failed = false;  // to make the pair, the last time
  std::optional<Clock::time_point> retryAt;
};

}  // namespace orvaned
