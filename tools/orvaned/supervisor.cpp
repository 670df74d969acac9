#include "supervisor.hpp"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <system_error>
#include <utility>

#include "log.hpp"
#include "queue_pair.hpp"
#include "server_status.hpp"
#include "stale_pair.hpp"

namespace orvaned {
namespace {

using orvane::server::LEVEL_ERROR;
using orvane::server::LEVEL_INFO;
using orvane::server::Logger;

constexpr std::chrono::milliseconds kTick{500};  // between two looks at the heartbeats
constexpr std::chrono::milliseconds kTickAtStart{10};
constexpr std::chrono::seconds kTimeToFinish{10};
constexpr std::chrono::seconds kTimeToCleanUp{4};

Fd openSignals() {
  sigset_t signals = supervisorSignals();
  return Fd(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

}  // namespace

sigset_t supervisorSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGTERM, SIGINT, SIGCHLD}) {
    sigaddset(&signals, number);
  }
  // Whoever runs a program under nohup wants it to outlive the terminal.
  struct sigaction hangup = {};
  if (sigaction(SIGHUP, nullptr, &hangup) == 0 && hangup.sa_handler != SIG_IGN) {
    sigaddset(&signals, SIGHUP);
  }
  return signals;
}

Supervisor::Supervisor(const Options& serverOptions)
    : options(serverOptions),
      forPairs{options, [this](int keep) { closeOthers(keep); },
               [this](const std::string& queue, pid_t worker) { recoverAfter(queue, worker); }},
      signals(openSignals()) {
  if (!options.queue.empty()) {
    queueLock.emplace(tool::lockPathOf(options.queue));
    requireOwnPair(options.queue);
  }
  if (!options.socket.empty()) {
    leases.emplace();
    desk.emplace(options.socket, options.geometry.mode);
  }
}

bool Supervisor::run() {
  if (leases) {
    cleanUpAfterDeadRuns();
  }
  if (queueLock) {
    recoverWhere([this](const UnfinishedStream& stream) { return stream.queue == options.queue; });
    pairs.emplace_back(forPairs, Pair::Kind::fixed, options.queue);
  }
  if (desk) {
    Logger("orvaned").log(LEVEL_INFO, "serve", 0, "serving leases at %s, storing into %s",
                          doublePercent(options.socket).c_str(),
                          doublePercent(options.store).c_str());
  }
  while (!isOver()) {
    tellWhenReady();
    waitForEvents();
    takeSignals();
    serveDesk();
    stepPairs();
    if (cleanUpAgain && Clock::now() >= *cleanUpAgain && !stopAt) {
      cleanUpAfterDeadRuns();
    }
    std::erase_if(recoveries, [](Child& child) { return child.ended().has_value(); });
  }
  return !failed;
}

// While others are served already: no new pair or stream has the name of an old one. A dead run's
// last processes, or another server that cleans up after it or just looks, may still be in the way.
void Supervisor::cleanUpAfterDeadRuns() {
  bool again = false;
  recoverWhere([&again](const UnfinishedStream& stream) {
    const tool::LockFile::Owner owner = ownerOfLeased(stream.queue);
    again = again || owner == tool::LockFile::Owner::dying;
    return owner == tool::LockFile::Owner::dead;
  });
  DeadRuns dead = takeDeadRuns();
  for (DeadRun& run : dead.taken) {
    for (const std::string& queue : run.queues) {
      pairs.emplace_back(forPairs, Pair::Kind::dead, queue);
    }
    deadRuns.push_back(std::move(run.lock));
  }
  cleanUpAgain = again || dead.moreToCome ? std::optional(Clock::now() + kTick) : std::nullopt;
}

void Supervisor::recoverWhere(const std::function<bool(const UnfinishedStream&)>& isDead) {
  const std::vector<UnfinishedStream> unfinished = findUnfinished(options.store, isDead);
  if (!unfinished.empty()) {
    recover([&unfinished, this] { recoverStreams(unfinished, options.sync); });
  }
}

void Supervisor::tellWhenReady() {
  const auto isAwaited = [](const Pair& pair) {
    return pair.kind() == Pair::Kind::fixed && !pair.isServing();
  };
  if (!ready && !stopAt && std::none_of(pairs.begin(), pairs.end(), isAwaited)) {
    ready = true;
    manager.tell("READY=1");
  }
}

bool Supervisor::isOver() const {
  const bool nothingLeft = pairs.empty() && recoveries.empty();
  if (stopAt && Clock::now() >= *stopAt + kTimeToFinish + kTimeToCleanUp) {
    return true;  // a process that even SIGKILL does not end: it waits for a disk
  }
  return (stopAt || failed) && nothingLeft;
}

void Supervisor::waitForEvents() {
  std::vector<pollfd> events = {{signals.get(), POLLIN, 0}};
  if (desk) {
    desk->addTo(events);
  }
  const auto tick = ready || stopAt ? kTick : kTickAtStart;
  poll(events.data(), events.size(), static_cast<int>(tick.count()));
}

void Supervisor::takeSignals() {
  signalfd_siginfo signal = {};
  while (read(signals.get(), &signal, sizeof(signal)) == sizeof(signal)) {
    if (signal.ssi_signo != SIGCHLD && !stopAt) {
      stop();
    }
  }
  if (stopAt && Clock::now() >= *stopAt + kTimeToFinish) {
    for (Pair& pair : pairs) {
      pair.kill();
    }
  }
}

void Supervisor::stop() {
  manager.tell("STOPPING=1");
  stopAt = Clock::now();
  desk.reset();
  for (Pair& pair : pairs) {
    pair.stop();
  }
  // What is not finished then is left to the next start.
  for (const Child& recovery : recoveries) {
    recovery.signal(SIGTERM);
  }
}

void Supervisor::serveDesk() {
  if (!desk) {
    return;
  }
  const auto limit = [this](const ucred& producer, LeaseDesk::Count applications) {
    return limitReachedBy(producer, applications);
  };
  asked = desk->serve(limit);
  for (auto& connection : asked) {
    pairs.emplace_back(forPairs, Pair::Kind::leased, leases->newQueueName(), std::move(connection));
  }
  asked.clear();
}

std::string Supervisor::limitReachedBy(const ucred& producer, LeaseDesk::Count applications) const {
  std::size_t own = applications.own;
  std::size_t all = applications.all;
  for (const Pair& pair : pairs) {
    if (const LeaseConnection* lease = pair.lease()) {
      ++all;
      own += lease->producer().uid == producer.uid ? 1 : 0;
    }
  }
  if (own >= options.pairsPerUser) {
    return "user " + std::to_string(producer.uid) + " has " + std::to_string(own) +
           " leases, as many as it may: end one, or start orvaned with a larger --pairs-per-user";
  }
  const std::size_t bytes = (all + 1) * bytesOfPair(options.geometry);
  const std::size_t limit =
      options.shmLimit != 0 ? options.shmLimit : std::filesystem::space("/dev/shm").capacity / 2;
  if (bytes > limit) {
    return "the leases would take " + std::to_string(bytes) + " bytes of /dev/shm, of " +
           std::to_string(limit) +
           " that they may: end one, or start orvaned with a larger --shm-limit";
  }
  return "";
}

void Supervisor::stepPairs() {
  for (auto pair = pairs.begin(); pair != pairs.end();) {
    pair->step();
    if (pair->isOver()) {
      failed = failed || (pair->kind() == Pair::Kind::fixed && !stopAt);
      pair = pairs.erase(pair);
    } else {
      ++pair;
    }
  }
  if (failed && !stopAt) {
    stop();
  }
  if (std::none_of(pairs.begin(), pairs.end(),
                   [](const Pair& pair) { return pair.kind() == Pair::Kind::dead; })) {
    deadRuns.clear();
  }
}

void Supervisor::recoverAfter(const std::string& queue, pid_t worker) {
  recover([this, queue, worker] {
    const std::string process = "-" + std::to_string(worker) + "_";
    recoverStreams(findUnfinished(options.store,
                                  [&](const UnfinishedStream& stream) {
                                    return stream.queue == queue &&
                                           stream.stream.find(process) != std::string::npos;
                                  }),
                   options.sync);
  });
}

void Supervisor::recover(const std::function<void()>& task) {
  try {
    recoveries.emplace_back([this, &task](Heartbeat&) {
      closeOthers(-1);
      endAtTermination();
      task();
      return 0;
    });
  } catch (const std::system_error& e) {
    Logger("recovery")
        .log(LEVEL_ERROR, __func__, kStoreFailed,
             "the next start finishes what a dead server left: %s", e.what());
  }
}

void Supervisor::closeOthers(int keep) {
  signals.reset();
  if (desk) {
    desk->closeFiles(keep);
  }
  std::erase_if(asked, [keep](const auto& one) { return one && one->fd() != keep; });
  for (Pair& pair : pairs) {
    pair.closeConnection(keep);
  }
}

}  // namespace orvaned
