#include "supervisor/recovery_process.hpp"

#include <sys/wait.h>

#include <exception>
#include <orvane/orvane.hpp>
#include <utility>

#include <orvane/server_status.hpp>
#include "leases/lease_run.hpp"
#include "log.hpp"
#include "store/broker.hpp"
#include "store/brokered_store.hpp"
#include "store/recovery.hpp"
#include "worker/confinement.hpp"

namespace orvaned {
namespace {

constexpr int kAgain = 4;  // the broker's exit code when there may be more to do later

void logError(const char* function, const char* what, const std::exception& error) {
  orvane::server::Logger("recovery")
      .log(orvane::server::LEVEL_ERROR, function, orvane::kStoreFailed, "%s: %s", what,
           doublePercent(error.what()).c_str());
}

// Runs in the broker's process.
int searchStore(const Options& options, const std::string& ownQueue, tool::Fd confined) {
  bool again = false;
  const auto isDead = [&](const std::string& queue) {
    const tool::LockFile::Owner owner = ownerOfLeased(queue);
    again = again || owner == tool::LockFile::Owner::dying;
    return queue == ownQueue || owner == tool::LockFile::Owner::dead;
  };
  try {
    LocalUnfinishedStreams unfinished(options.store, isDead);
    Broker({options.store, "", options.sync, &unfinished}, std::move(confined)).run();
  } catch (const std::exception& e) {
    logError(__func__, "cannot look for unfinished streams, trying again", e);
    again = true;
  }
  return again ? kAgain : 0;
}

int recoverConfined(const Options& options, tool::Fd brokerSocket, pid_t supervisor,
                    const char* who, Heartbeat& heartbeat) {
  // The log needs it to the end of the process.
  static BrokerClient broker(std::move(brokerSocket));
  broker.takeLog();
  endAtTermination();
  dropRights(options.confinement, supervisor);
  restrictCalls(options.confinement, &heartbeat.refusedCall);
  BrokeredUnfinishedStreams streams(broker);
  recoverStreams(streams, options.sync, who);
  return 0;
}

}  // namespace

RecoveryProcess::RecoveryProcess(const ProcessContext& context, BrokerProcess workersBroker)
    : broker(std::move(workersBroker.process)) {
  try {
    startConfined(context, workersBroker.socket, "its worker");
  } catch (const std::exception& e) {
    logError("recover", "the next start finishes what a dead worker left", e);
  }
}

RecoveryProcess::RecoveryProcess(const ProcessContext& context, const std::string& ownQueue) {
  try {
    startSearch(context, ownQueue);
  } catch (const std::exception& e) {
    logError("recover", "cannot look for unfinished streams, trying again", e);
    repeat = true;
  }
}

RecoveryProcess RecoveryProcess::nothingLeft(BrokerProcess broker) {
  RecoveryProcess process;
  process.broker = std::move(broker.process);
  return process;
}

void RecoveryProcess::startSearch(const ProcessContext& context, const std::string& ownQueue) {
  const auto [confinedsEnd, brokersEnd] = connectedSockets();
  broker = std::make_unique<Child>([&, file = brokersEnd.get()](Heartbeat&) {
    context.keepOnly({file}, LogAccess::kept);
    endAtTermination();
    return searchStore(context.options, ownQueue, tool::Fd(file));
  });
  startConfined(context, confinedsEnd, "the server");
}

void RecoveryProcess::startConfined(const ProcessContext& context, const tool::Fd& socket,
                                    const char* who) {
  confined = std::make_unique<Child>([&](Heartbeat& heartbeat) {
    context.keepOnly({socket.get()}, LogAccess::left);
    return recoverConfined(context.options, tool::Fd(socket.get()), context.supervisor, who,
                           heartbeat);
  });
}

void RecoveryProcess::step() {
  if (confined && confined->ended()) {
    confined.reset();
  }
  if (const auto status = broker ? broker->ended() : std::nullopt) {
    repeat = repeat || (WIFEXITED(*status) && WEXITSTATUS(*status) == kAgain);
    broker.reset();
  }
}

void RecoveryProcess::signal(int number) const {
  for (const Child* child : {confined.get(), broker.get()}) {
    if (child != nullptr) {
      child->signal(number);
    }
  }
}

void RecoveryProcess::abandon() {
  for (Child* child : {confined.get(), broker.get()}) {
    if (child != nullptr) {
      child->abandon();
    }
  }
}

}  // namespace orvaned
