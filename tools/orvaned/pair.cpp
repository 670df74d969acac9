#include "pair.hpp"

#include <sys/wait.h>

#include <csignal>
#include <orvane/orvane.hpp>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "lease_desk.hpp"
#include "log.hpp"
#include "serve_pair.hpp"
#include "server_status.hpp"
#include "stale_pair.hpp"
#include "worker/confinement.hpp"

namespace orvaned {
namespace {

using orvane::server::LEVEL_ERROR;
using orvane::server::Logger;

// A queue's lock is waited for 2 seconds at most; no valid call takes so long.
constexpr std::chrono::seconds kStuckAfter{5};
constexpr std::chrono::seconds kBusyAtMost{5};
constexpr std::chrono::seconds kNoticeTime{3};
constexpr std::chrono::seconds kBetweenTries{1};

constexpr char kServerDied[] = "the server died: send again what it did not acknowledge";
constexpr char kWorkerDiedNotice[] =
    "what served the queue died: send again what it did not acknowledge";

const Logger& logger() {
  static const Logger log("pair");
  return log;
}

}  // namespace

Pair::Pair(const Context& pairContext, Kind kindOfPair, std::string queueName,
           std::optional<uid_t> producersUser, std::unique_ptr<LeaseConnection> lease)
    : context(pairContext),
      pairKind(kindOfPair),
      name(std::move(queueName)),
      loggedName(doublePercent(name)),
      user(producersUser),
      connection(std::move(lease)),
      subject(connection ? subjectOf(connection->producer().uid) : "queue " + name),
      notice(kServerDied) {
  const LogSubject logged(subject);
  // Nothing is under a lease's name: it was chosen so. What is there now is not opened.
  pairKind == Kind::leased ? proceed() : begin();
}

// Where the process is still there, not even SIGKILL has ended it.
Pair::~Pair() {
  if (child) {
    child.reset();
    removePair(name);
  }
}

void Pair::step() {
  const LogSubject logged(subject);
  if (!child) {
    if (retryAt && Clock::now() >= *retryAt) {
      begin();
    }
    return;
  }
  if (phase == Phase::notice && child->age() > kNoticeTime) {
    child->signal(SIGKILL);
  }
  if (phase == Phase::serving && !killed) {
    watchWorker();
  }
  if (const auto status = child->ended()) {
    if (phase == Phase::serving) {
      workerEnded(*status);
    } else {
      child.reset();
      removePair(name);
      proceed();
    }
  }
}

void Pair::watchWorker() {
  if (child->insideQueueCall() > kStuckAfter) {
    killWorker("hangs inside a queue");
  } else if (child->busyWithoutMessage() > kBusyAtMost) {
    killWorker("uses the processor without taking a message");
  } else if (broker.process->ended()) {
    killWorker("has lost the process that opens its files");
  }
}

void Pair::killWorker(const char* reason) {
  logger().log(LEVEL_ERROR, "step", kWorkerDied, "queue %s: its worker %s and is killed",
               loggedName.c_str(), reason);
  kill();
}

void Pair::stop() {
  stopping = true;
  retryAt.reset();
  if (child && phase == Phase::serving) {
    child->signal(SIGTERM);
  }
}

void Pair::kill() {
  if (child && phase == Phase::serving) {
    killed = true;
    child->signal(SIGKILL);
  }
}

void Pair::abandon() {
  for (Child* process : {child.get(), broker.process.get()}) {
    if (process != nullptr) {
      process->abandon();
    }
  }
}

void Pair::begin() {
  retryAt.reset();
  try {
    if (pairKind == Kind::fixed) {
      requireOwnPair(name, context.options.confinement.user);
    }
    if (pairExists(name)) {
      postNotice();
      return;
    }
  } catch (const std::exception& e) {
    logger().log(LEVEL_ERROR, __func__, kNoPair, "%s", doublePercent(e.what()).c_str());
    failed = true;
  }
  proceed();
}

void Pair::proceed() {
  const bool wanted = pairKind == Kind::fixed || (pairKind == Kind::leased && connection);
  if (!wanted || stopping) {
    return;
  }
  if (!std::exchange(failed, false)) {
    serve();
  } else if (served) {
    retryAt = Clock::now() + kBetweenTries;
  }
}

void Pair::serve() {
  phase = Phase::serving;
  killed = false;
  try {
    startProcesses();
  } catch (const std::exception& e) {
    child.reset();
    broker = Broker();
    logger().log(LEVEL_ERROR, __func__, kNoPair, "queue %s: %s", loggedName.c_str(), e.what());
    refuseLease(e.what());
    failed = true;
    proceed();
  }
}

void Pair::startProcesses() {
  auto [workersEnd, brokersEnd] = connectedSockets();
  broker.process = std::make_unique<Child>(
      [&, file = brokersEnd.get()](Heartbeat&) {
        nameProcess("orvaned-broker");
        context.keepOnly({file}, Log::kept);
        return serveWorker(context.options, name, Fd(file), context.supervisor);
      },
      Child::Orphaned::goesOn);
  child = std::make_unique<Child>([&, file = workersEnd.get()](Heartbeat& heartbeat) {
    nameProcess("orvaned-worker");
    std::vector<int> files = {file};
    if (connection) {
      files.insert(files.end(), {connection->fd(), connection->pidfd()});
    }
    context.keepOnly(files, Log::left);
    return servePair(context.options, name, connection.get(), Fd(file), context.supervisor,
                     heartbeat);
  });
  broker.socket = std::move(workersEnd);
}

void Pair::postNotice() {
  phase = Phase::notice;
  child = std::make_unique<Child>([this](Heartbeat& heartbeat) {
    context.keepOnly({}, Log::left);
    endAtTermination();
    orvaned::postNotice(name, notice, user, context.options.confinement, context.supervisor,
                        &heartbeat.refusedCall);
    return 0;
  });
}

void Pair::workerEnded(int status) {
  const bool wasKilled = WIFSIGNALED(status);
  const bool died = wasKilled || WEXITSTATUS(status) == kTaskThrew;
  served = served || child->isReady();
  failed = !child->isReady();
  if (died) {
    logDeath(status);
    if (connection) {
      connection->send((failed ? "refused " : "failed ") + std::to_string(kWorkerDied) +
                       " what served the queue died");
    }
    notice = kWorkerDiedNotice;
  }
  context.conclude(name, std::move(broker), died);
  connection.reset();
  child.reset();
  if (died) {
    begin();
  } else {
    removePair(name);
    proceed();
  }
}

void Pair::logDeath(int status) const {
  if (!WIFSIGNALED(status)) {
    logger().log(LEVEL_ERROR, "workerEnded", kWorkerDied,
                 "queue %s: its worker was ended by an exception", loggedName.c_str());
    return;
  }
  const int call = child->refusedCall();
  const std::string refused =
      call >= 0 ? ": it made the system call " + nameOfCall(call) + ", which it may not" : "";
  logger().log(LEVEL_ERROR, "workerEnded", kWorkerDied,
               "queue %s: its worker was killed by signal %d%s", loggedName.c_str(),
               WTERMSIG(status), refused.c_str());
}

void Pair::refuseLease(const std::string& reason) {
  if (connection) {
    refuse(*connection, kNoPair, reason);
    connection.reset();
  }
}

}  // namespace orvaned
