#include "supervisor/supervisor.hpp"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <exception>
#include <orvane/server_status.hpp>
#include <utility>

#include "log.hpp"
#include "shm/shm_names.hpp"
#include "supervisor/lease_limits.hpp"
#include "supervisor/pair_files.hpp"
#include "worker/confinement.hpp"

namespace orvaned {
namespace {

using orvane::server::LEVEL_ERROR;
using orvane::server::LEVEL_INFO;
using orvane::server::Logger;

constexpr std::chrono::milliseconds kTick{500};  // between two checks of the heartbeats
constexpr std::chrono::milliseconds kTickAtStart{10};
constexpr std::chrono::seconds kTimeToFinish{10};
constexpr std::chrono::seconds kTimeToCleanUp{4};
constexpr std::size_t kMostDeadPairs = 16;  // removed at the same time
constexpr std::size_t kUsualEvents = 32;
constexpr std::size_t kFewestSilent = 32;  // connections that a user may open before it asks

tool::Fd openSignals() {
  sigset_t signals = supervisorSignals();
  return tool::Fd(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

}  // namespace

sigset_t supervisorSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGTERM, SIGINT, SIGCHLD}) {
    sigaddset(&signals, number);
  }
  // A program that runs under nohup must outlive its terminal.
  struct sigaction hangup = {};
  if (sigaction(SIGHUP, nullptr, &hangup) == 0 && hangup.sa_handler != SIG_IGN) {
    sigaddset(&signals, SIGHUP);
  }
  return signals;
}

Supervisor::Supervisor(const Options& options)
    : options(options),
      context{options, getpid(),
              [this](std::vector<int> files, LogAccess log) { keepOnly(std::move(files), log); },
              [this](const std::string& queue, BrokerProcess broker, bool died) {
                conclude(queue, std::move(broker), died);
              }},
      signals(openSignals()) {
  events.reserve(kUsualEvents);
  if (!options.queue.empty()) {
    queueLock.emplace(tool::lockPathOf(options.queue));
    requireOwnPair(options.queue, options.confinement.user);
  }
  if (!options.socket.empty()) {
    leases.emplace();
    // All producers of a user may connect at the same time, before the first of them asks.
    requests.emplace(options.socket, options.geometry.mode,
                     std::max(kFewestSilent, options.pairsPerUser));
  }
}

bool Supervisor::run(LogWriter& log) {
  tryTo("begin", [this] { begin(); });
  while (!isOver()) {
    tryTo("serve", [&] { step(log); });
  }
  abandonAll();
  return !failed;
}

void Supervisor::begin() {
  unfinished.insert("");
  recoverAgain = Clock::now();
  if (leases) {
    searchAgain = Clock::now();
  }
  if (queueLock) {
    pairs.emplace_back(context, PairProcesses::Kind::fixed, options.queue);
  }
  if (requests) {
    Logger("orvaned").log(LEVEL_INFO, "serve", 0, "serving leases at %s, storing into %s",
                          doublePercent(options.socket).c_str(),
                          doublePercent(options.store).c_str());
  }
}

void Supervisor::step(LogWriter& log) {
  reportReady();
  waitForEvents();
  log.restartIfEnded();
  receiveSignals();
  tryTo("serve requests for leases", [this] { serveRequests(); });
  stepPairs();
  stepRecoveries();
  stepSearch();
}

// There may be no memory left; the action is then repeated later, or was refused.
void Supervisor::tryTo(const char* action, const std::function<void()>& task) noexcept {
  try {
    task();
  } catch (const std::exception& e) {
    try {
      Logger("supervisor")
          .log(LEVEL_ERROR, __func__, orvane::kNoPair, "cannot %s, going on: %s", action,
               doublePercent(e.what()).c_str());
    } catch (const std::exception&) {
      // There is no memory even for a line about it.
    }
  }
}

// Runs while pairs are already served: no new pair or stream has the name of an old one. It is
// repeated, because a dead run's last processes or another server may still hold the locks.
void Supervisor::stepRecoveries() {
  for (RecoveryProcess& recovery : recoveries) {
    recovery.step();
    if (recovery.isOver() && recovery.isToBeRepeated()) {
      unfinished.insert(recovery.queue());
      recoverAgain = Clock::now() + kTick;
    }
  }
  std::erase_if(recoveries, [](const RecoveryProcess& recovery) { return recovery.isOver(); });
  if (recoverAgain && Clock::now() >= *recoverAgain && !stopAt) {
    recoverAgain = Clock::now() + kTick;  // in case the next lines throw
    for (; !unfinished.empty(); unfinished.erase(unfinished.begin())) {
      const std::string& queue = *unfinished.begin();
      recoveries.push_back(queue.empty() ? RecoveryProcess::ofDeadServers(context)
                                         : RecoveryProcess::ofQueue(context, queue));
    }
    recoverAgain.reset();
  }
}

void Supervisor::stepSearch() {
  if (searchAgain && Clock::now() >= *searchAgain && !search && !stopAt) {
    search.emplace(context);
    searchAgain.reset();
  }
  if (!search) {
    return;
  }
  while (deadPairs() < kMostDeadPairs) {
    const auto left = search->next();
    if (!left) {
      break;
    }
    pairs.emplace_back(context, PairProcesses::Kind::dead, left->queue, left->user);
  }
  if ((search->isComplete() || stopAt) && deadPairs() == 0) {
    search->release();
  }
  if (search->isOver()) {
    searchAgain = search->isToBeRepeated() ? std::optional(Clock::now() + kTick) : std::nullopt;
    search.reset();
  }
}

void Supervisor::reportReady() {
  const auto isAwaited = [](const PairProcesses& pair) {
    return pair.kind() == PairProcesses::Kind::fixed && !pair.isServing();
  };
  if (!ready && !stopAt && std::none_of(pairs.begin(), pairs.end(), isAwaited)) {
    ready = true;
    manager.notify("READY=1");
  }
}

bool Supervisor::isOver() const {
  const bool nothingLeft = pairs.empty() && recoveries.empty() && !search;
  if (stopAt && Clock::now() >= *stopAt + kTimeToFinish + kTimeToCleanUp) {
    return true;  // a process that not even SIGKILL ends: it waits for a disk
  }
  return (stopAt || failed) && nothingLeft;
}

// If there is no memory for all events, it waits for those that fit into the list.
void Supervisor::waitForEvents() {
  events.clear();
  tryTo("wait for all events", [this] {
    events.push_back({signals.get(), POLLIN, 0});
    events.push_back({search && !search->isComplete() ? search->fd() : -1, POLLIN, 0});
    if (requests) {
      requests->addTo(events);
    }
  });
  const auto tick = ready || stopAt ? kTick : kTickAtStart;
  poll(events.data(), events.size(), static_cast<int>(tick.count()));
}

void Supervisor::receiveSignals() {
  signalfd_siginfo signal = {};
  while (read(signals.get(), &signal, sizeof(signal)) == sizeof(signal)) {
    if (signal.ssi_signo != SIGCHLD && !stopAt) {
      stop();
    }
  }
  if (stopAt && Clock::now() >= *stopAt + kTimeToFinish) {
    for (PairProcesses& pair : pairs) {
      pair.kill();
    }
  }
}

// Processes that have not ended by now are waiting for a disk.
void Supervisor::abandonAll() {
  for (PairProcesses& pair : pairs) {
    pair.abandon();
  }
  for (RecoveryProcess& recovery : recoveries) {
    recovery.abandon();
  }
}

void Supervisor::stop() {
  stopAt = Clock::now();
  manager.notify("STOPPING=1");
  requests.reset();
  for (PairProcesses& pair : pairs) {
    pair.stop();
  }
  // Streams that are not finished by then are left to the next start.
  for (const RecoveryProcess& recovery : recoveries) {
    recovery.signal(SIGTERM);
  }
}

void Supervisor::serveRequests() {
  if (!requests) {
    return;
  }
  const auto limit = [this](const ucred& producer, std::size_t pending) {
    return limitReachedBy(producer, pending, options, pairs);
  };
  const auto totals = [this](uid_t user, const std::string& after) {
    return nextTotals(user, after);
  };
  for (auto& connection : requests->serve(limit, totals)) {
    startLease(std::move(connection));
  }
}

// A user may see its own rings; root and the server's user may see all.
LeaseRequests::Totals Supervisor::nextTotals(uid_t user, const std::string& after) const {
  LeaseRequests::Totals next;
  for (const PairProcesses& pair : pairs) {
    const bool isSeen = pair.lease() != nullptr &&
                        (user == 0 || user == geteuid() || user == pair.lease()->producer().uid);
    const bool isNext =
        pair.queueName() > after && (next.name.empty() || pair.queueName() < next.name);
    if (const int file = isSeen && isNext ? pair.ringTotalsFile() : -1; file >= 0) {
      next = {pair.queueName(), file};
    }
  }
  return next;
}

void Supervisor::startLease(std::unique_ptr<LeaseConnection> connection) {
  LeaseConnection* const asking = connection.get();
  if (const std::string reason = noRoomFor(*asking, options, pairs); !reason.empty()) {
    refuse(*asking, orvane::kLimitReached, reason);
    return;
  }
  try {
    const uid_t user = connection->producer().uid;
    if (connection->ringBytes() == 0) {
      leases->lockForQueues();
    }
    pairs.emplace_back(context, PairProcesses::Kind::leased, leases->newQueueName(), user,
                       std::move(connection));
  } catch (const std::exception& e) {
    if (connection) {
      refuse(*asking, orvane::kNoPair, e.what());
    }
  }
}

void Supervisor::stepPairs() {
  for (auto pair = pairs.begin(); pair != pairs.end();) {
    tryTo("look after a queue", [&] { pair->step(); });
    if (pair->isOver()) {
      failed = failed || (pair->kind() == PairProcesses::Kind::fixed && !stopAt);
      pair = pairs.erase(pair);
    } else {
      ++pair;
    }
  }
  if (failed && !stopAt) {
    stop();
  }
}

std::size_t Supervisor::deadPairs() const {
  return static_cast<std::size_t>(std::count_if(
      pairs.begin(), pairs.end(),
      [](const PairProcesses& pair) { return pair.kind() == PairProcesses::Kind::dead; }));
}

void Supervisor::conclude(const std::string& queue, BrokerProcess broker, bool died) {
  recoveries.push_back(died ? RecoveryProcess::ofWorker(context, queue, std::move(broker))
                            : RecoveryProcess::nothingLeft(context, queue, std::move(broker)));
}

// Keeps the locks too: they show other servers that a process of this one still lives. A process
// that uses a producer's memory does not even keep the standard files: a producer that took it over
// could fill them.
void Supervisor::keepOnly(std::vector<int> files, LogAccess log) const {
  if (queueLock) {
    files.push_back(queueLock->file());
  }
  if (leases) {
    files.push_back(leases->lockFile());
  }
  if (requests) {
    files.push_back(requests->lockFile());
  }
  if (log == LogAccess::left) {
    leaveLog();
    closeStandardFiles();
  } else {
    files.push_back(logFile());
  }
  files.insert(files.end(), {STDIN_FILENO, STDOUT_FILENO});
  closeAllBut(std::move(files));
}

}  // namespace orvaned
