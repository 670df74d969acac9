#pragma once

#include <chrono>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "child.hpp"
#include "lease_connection.hpp"
#include "options.hpp"

namespace orvaned {

// A queue pair as the supervisor sees it: the worker process that serves it, the broker of that
// process, and what is to be done when the worker ends. The supervisor itself never touches a
// queue, since whoever may use one can make the other side crash or hang in it.
//
// What a dead worker left behind is removed, but its producer is told first, by another confined
// process. A fixed pair is then made anew; a leased one is over, and its connection ends.
//
// Nothing here throws or blocks, except the constructor, which may throw std::bad_alloc.
class Pair {
 public:
  using Clock = Child::Clock;

  enum class Kind {
    fixed,   // found by a name that producers know
    leased,  // one producer's own
    dead     // left by another server; only to be removed
  };

  // A worker's broker, and this end of the socket to it: with it another process can finish what
  // the worker left open.
  struct Broker {
    std::unique_ptr<Child> process;
    Fd socket = Fd();
  };

  // May a new process write to the log? One that is confined may not.
  enum class Log { kept, left };

  // What a pair needs of the supervisor.
  struct Context {
    const Options& options;
    pid_t supervisor;
    // In a new process: closes all files but these, the server's locks, and those of the log.
    std::function<void(std::vector<int> files, Log log)> keepOnly;
    // Takes the broker of a queue's worker that has ended; `died`: the worker left its work undone.
    std::function<void(const std::string& queue, Broker broker, bool died)> conclude;
  };

  // `user` is whose the files of a leased or dead pair may be, besides the server's own.
  Pair(const Context& pairContext, Kind kindOfPair, std::string queueName,
       std::optional<uid_t> producersUser = {}, std::unique_ptr<LeaseConnection> lease = nullptr);

  // Kills the processes.
  ~Pair();
  Pair(const Pair&) = delete;
  Pair& operator=(const Pair&) = delete;

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

  const Context& context;
  const Pair::Kind pairKind;
  const std::string name;
  const std::string loggedName;
  const std::optional<uid_t> user;
  std::unique_ptr<LeaseConnection> connection;
  const std::string subject;  // of the lines about it, its worker's too
  std::unique_ptr<Child> child;
  Broker broker;
  Phase phase = Phase::serving;
  const char* notice;
  bool killed = false;
  bool stopping = false;
  bool served = false;  // ever
  bool failed = false;  // to make the pair, the last time
  std::optional<Clock::time_point> retryAt;
};

}  // namespace orvaned
