#include "supervisor/pair_processes.hpp"

#include <sys/wait.h>

#include <csignal>
#include <orvane/orvane.hpp>
#include <orvane/server_status.hpp>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "leases/lease_requests.hpp"
#include "log.hpp"
#include "store_format/stream_id.hpp"
#include "supervisor/notice.hpp"
#include "supervisor/pair_files.hpp"
#include "supervisor/pair_tasks.hpp"
#include "worker/confinement.hpp"
#include "worker/ring_totals_file.hpp"

namespace orvaned {
namespace {

using orvane::server::LEVEL_ERROR;
using orvane::server::Logger;

// A process waits at most 2 seconds for a queue's lock; no valid call takes as long as this.
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

PairProcesses::PairProcesses(const ProcessContext& context, Kind kind, std::string queueName,
                             std::optional<uid_t> user, std::unique_ptr<LeaseConnection> lease)
    : context(context),
      pairKind(kind),
      name(std::move(queueName)),
      loggedName(doublePercent(name)),
      user(user),
      connection(std::move(lease)),
      subject(connection ? subjectOf(connection->producer().uid) : "queue " + name),
      notice(kServerDied) {
  const LogSubject logged(subject);
  // A lease's name was chosen so that nothing has it. A file that has it now is never opened.
  pairKind == Kind::leased ? proceed() : begin();
}

// If the process still exists, not even SIGKILL has ended it.
PairProcesses::~PairProcesses() {
  if (child) {
    child.reset();
    removePair(name);
  }
}

void PairProcesses::step() {
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

void PairProcesses::watchWorker() {
  if (child->insideQueueCall() > kStuckAfter) {
    killWorker("hangs inside a queue");
  } else if (child->busyWithoutMessage() > kBusyAtMost) {
    killWorker("uses the processor without taking a message");
  } else if (broker.process->ended()) {
    killWorker("has lost the process that opens its files");
  }
}

void PairProcesses::killWorker(const char* reason) {
  logger().log(LEVEL_ERROR, "step", orvane::kWorkerDied, "queue %s: its worker %s and is killed",
               loggedName.c_str(), reason);
  kill();
}

void PairProcesses::stop() {
  stopping = true;
  retryAt.reset();
  if (child && phase == Phase::serving) {
    child->signal(SIGTERM);
  }
}

void PairProcesses::kill() {
  if (child && phase == Phase::serving) {
    killed = true;
    child->signal(SIGKILL);
  }
}

void PairProcesses::abandon() {
  for (Child* process : {child.get(), broker.process.get()}) {
    if (process != nullptr) {
      process->abandon();
    }
  }
}

void PairProcesses::begin() {
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
    logger().log(LEVEL_ERROR, __func__, orvane::kNoPair, "%s", doublePercent(e.what()).c_str());
    failed = true;
  }
  proceed();
}

void PairProcesses::proceed() {
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

void PairProcesses::serve() {
  phase = Phase::serving;
  killed = false;
  try {
    startProcesses();
  } catch (const std::exception& e) {
    child.reset();
    broker = BrokerProcess();
    logger().log(LEVEL_ERROR, __func__, orvane::kNoPair, "queue %s: %s", loggedName.c_str(),
                 e.what());
    refuseLease(e.what());
    failed = true;
    proceed();
  }
}

void PairProcesses::startProcesses() {
  auto [workersEnd, brokersEnd] = connectedSockets();
  const StreamOrigin origin = originOfStreams();
  broker.process = std::make_unique<Child>(
      [&, file = brokersEnd.get()](Heartbeat&) {
        nameProcess("orvaned-broker");
        context.keepOnly({file}, LogAccess::kept);
        return runBroker(context.options, origin, tool::Fd(file), context.supervisor);
      },
      Child::Orphaned::continues);
  if (connection && connection->ringBytes() != 0) {
    ringTotals = RingTotalsFile::newFile();
  }
  child = std::make_unique<Child>([&, file = workersEnd.get()](Heartbeat& heartbeat) {
    nameProcess("orvaned-worker");
    std::vector<int> files = {file};
    if (connection) {
      files.insert(files.end(), {connection->fd(), connection->pidfd(), ringTotals.get()});
    }
    context.keepOnly(files, LogAccess::left);
    return runWorker(context.options, name, connection.get(), tool::Fd(file), std::move(ringTotals),
                     context.supervisor, heartbeat);
  });
  broker.socket = std::move(workersEnd);
}

StreamOrigin PairProcesses::originOfStreams() const {
  if (!connection) {
    return {.queue = name};
  }
  const ucred& producer = connection->producer();
  return {.queue = name,
          .name = tool::nameOfSocket(context.options.socket),
          .producer =
              tool::Producer{producer.uid, producer.gid, producer.pid, connection->executable()},
          .label = connection->label()};
}

int PairProcesses::ringTotalsFile() const {
  return isServing() && RingTotalsFile::isSealed(ringTotals.get()) ? ringTotals.get() : -1;
}

void PairProcesses::postNotice() {
  phase = Phase::notice;
  child = std::make_unique<Child>([this](Heartbeat& heartbeat) {
    context.keepOnly({}, LogAccess::left);
    endAtTermination();
    orvaned::postNotice(name, notice, user, context.options.confinement, context.supervisor,
                        &heartbeat.refusedCall);
    return 0;
  });
}

void PairProcesses::workerEnded(int status) {
  const bool wasKilled = WIFSIGNALED(status);
  const bool died = wasKilled || WEXITSTATUS(status) == kTaskThrew;
  served = served || child->isReady();
  failed = !child->isReady();
  if (died) {
    logDeath(status);
    if (connection) {
      constexpr char reason[] = "what served the queue died";
      failed ? connection->send(orvane::LeaseRefused{orvane::kWorkerDied, reason})
             : connection->send(orvane::StreamFailed{orvane::kWorkerDied, reason});
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

void PairProcesses::logDeath(int status) const {
  if (!WIFSIGNALED(status)) {
    logger().log(LEVEL_ERROR, "workerEnded", orvane::kWorkerDied,
                 "queue %s: its worker was ended by an exception", loggedName.c_str());
    return;
  }
  const int call = child->refusedCall();
  const std::string refused =
      call >= 0 ? ": it made the system call " + nameOfCall(call) + ", which it may not" : "";
  logger().log(LEVEL_ERROR, "workerEnded", orvane::kWorkerDied,
               "queue %s: its worker was killed by signal %d%s", loggedName.c_str(),
               WTERMSIG(status), refused.c_str());
}

void PairProcesses::refuseLease(const std::string& reason) {
  if (connection) {
    refuse(*connection, orvane::kNoPair, reason);
    connection.reset();
  }
}

}  // namespace orvaned
