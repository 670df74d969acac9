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

namespace orvaned {
namespace {

using orvane::server::LEVEL_ERROR;
using orvane::server::Logger;

// A queue's lock is waited for 2 seconds at most; no lawful call takes so long.
constexpr std::chrono::seconds kStuckAfter{5};
constexpr std::chrono::seconds kFarewellTime{3};
constexpr std::chrono::seconds kBetweenTries{1};

constexpr char kServerDied[] = "the server died: send again what it did not acknowledge";
constexpr char kWorkerDiedFarewell[] =
    "what served the queue died: send again what it did not acknowledge";

const Logger& logger() {
  static const Logger log("pair");
  return log;
}

}  // namespace

Pair::Pair(const Surroundings& surroundings, Kind kindOfPair, std::string queueName,
           std::unique_ptr<LeaseConnection> lease)
    : around(surroundings),
      pairKind(kindOfPair),
      name(std::move(queueName)),
      loggedName(doublePercent(name)),
      connection(std::move(lease)),
      farewell(kServerDied) {
  begin();
}

// Where the process is still there, not even SIGKILL has ended it.
Pair::~Pair() {
  if (child) {
    child.reset();
    removePair(name);
  }
}

void Pair::step() {
  if (!child) {
    if (retryAt && Clock::now() >= *retryAt) {
      begin();
    }
    return;
  }
  if (phase == Phase::farewell && child->age() > kFarewellTime) {
    child->signal(SIGKILL);
  }
  if (phase == Phase::serving && !killed && child->insideQueueCall() > kStuckAfter) {
    logger().log(LEVEL_ERROR, __func__, kWorkerDied,
                 "queue %s: its worker hangs inside a queue and is killed", loggedName.c_str());
    kill();
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

void Pair::closeConnection(int keep) {
  if (connection && connection->fd() != keep) {
    connection.reset();
  }
}

void Pair::begin() {
  retryAt.reset();
  try {
    if (pairKind == Kind::fixed) {
      requireOwnPair(name);
    }
    if (pairExists(name)) {
      sayFarewell();
      return;
    }
  } catch (const std::runtime_error& e) {
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
    child = std::make_unique<Child>([this](Heartbeat& heartbeat) {
      around.closeOthers(connection ? connection->fd() : -1);
      return servePair(around.options, name, connection.get(), heartbeat);
    });
  } catch (const std::system_error& e) {
    logger().log(LEVEL_ERROR, __func__, kNoPair, "queue %s: %s", loggedName.c_str(), e.what());
    if (connection) {
      refuse(*connection, kNoPair, e.what());
      connection.reset();
    }
    failed = true;
    proceed();
  }
}

void Pair::sayFarewell() {
  phase = Phase::farewell;
  try {
    child = std::make_unique<Child>([this](Heartbeat&) {
      around.closeOthers(-1);
      endAtTermination();
      postFarewell(name, farewell);
      return 0;
    });
  } catch (const std::system_error&) {  // then without a word
    removePair(name);
    proceed();
  }
}

void Pair::workerEnded(int status) {
  served = served || child->isReady();
  failed = !child->isReady();
  if (WIFSIGNALED(status)) {
    logger().log(LEVEL_ERROR, __func__, kWorkerDied, "queue %s: its worker was killed by signal %d",
                 loggedName.c_str(), WTERMSIG(status));
    if (connection) {
      connection->send((failed ? "refused " : "failed ") + std::to_string(kWorkerDied) +
                       " what served the queue died");
    }
    around.recover(name, child->process());
    farewell = kWorkerDiedFarewell;
  }
  connection.reset();
  child.reset();
  begin();
}

}  // namespace orvaned
