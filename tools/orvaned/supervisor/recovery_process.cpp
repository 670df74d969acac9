#include "supervisor/recovery_process.hpp"

#include <algorithm>
#include <exception>
#include <orvane/orvane.hpp>
#include <orvane/server_status.hpp>
#include <utility>
#include <vector>

#include "leases/lease_run.hpp"
#include "log.hpp"
#include "shm/shm_names.hpp"
#include "store/broker.hpp"
#include "store/brokered_store.hpp"
#include "store/recovery.hpp"
#include "store_format/stream_id.hpp"
#include "worker/confinement.hpp"

namespace orvaned {
namespace {

constexpr int kAgain = 4;  // the broker's exit code when there may be more to do later

void logError(const char* function, const char* what, const std::exception& error) {
  orvane::server::Logger("recovery")
      .log(orvane::server::LEVEL_ERROR, function, orvane::kStoreFailed, "%s: %s", what,
           doublePercent(error.what()).c_str());
}

bool isOfADyingServer(const std::string& queue) {
  return ownerOfLeased(queue) == tool::LockFile::OwnerState::dying;
}

// Of a fixed queue this is not known: the lock of a queue that has just been taken over is this
// server's, and its stream may still be the dead one's.
bool isLeasedByALivingServer(const std::string& queue) {
  return tool::runOf(queue) && ownerOfLeased(queue) == tool::LockFile::OwnerState::alive;
}

std::string nameInIds(const Options& options, const std::string& queue) {
  return tool::runOf(queue) ? tool::nameOfSocket(options.socket) : queue;
}

// Runs in the broker's process.
int searchStore(const Options& options, const std::string& queue, tool::Fd confined) {
  try {
    LocalUnfinishedStreams unfinished =
        queue.empty() ? LocalUnfinishedStreams(options.store, isLeasedByALivingServer)
                      : LocalUnfinishedStreams(options.store, queue, nameInIds(options, queue));
    Broker({options.store, {}, options.sync, &unfinished}, std::move(confined)).run();
    const std::vector<std::string>& inUse = unfinished.queuesInUse();
    const bool isMoreLater =
        unfinished.isStoreAway() || std::any_of(inUse.begin(), inUse.end(), isOfADyingServer);
    return isMoreLater ? kAgain : 0;
  } catch (const std::exception& e) {
    logError(__func__, "cannot look for unfinished streams, trying again", e);
    return kAgain;
  }
}

int recoverConfined(const Options& options, tool::Fd brokerSocket, pid_t supervisor,
                    const char* who, Heartbeat& heartbeat) {
  // The log needs the broker until the process ends.
  static BrokerClient broker(std::move(brokerSocket));
  broker.redirectLog();
  endAtTermination();
  dropRights(options.confinement, supervisor);
  restrictCalls(options.confinement, &heartbeat.refusedCall);
  BrokeredUnfinishedStreams streams(broker);
  recoverStreams(streams, options.sync, who);
  return 0;
}

}  // namespace

RecoveryProcess::RecoveryProcess(const ProcessContext& context, std::string queueName,
                                 const char* who)
    : context(context), queueName(std::move(queueName)), who(who) {}

RecoveryProcess RecoveryProcess::ofDeadServers(const ProcessContext& context) {
  RecoveryProcess process(context, "", "the server");
  process.search();
  return process;
}

RecoveryProcess RecoveryProcess::ofQueue(const ProcessContext& context, const std::string& queue) {
  RecoveryProcess process(context, queue, "its worker");
  process.search();
  return process;
}

RecoveryProcess RecoveryProcess::ofWorker(const ProcessContext& context, const std::string& queue,
                                          BrokerProcess workersBroker) {
  const tool::Fd socket = std::move(workersBroker.socket);
  RecoveryProcess process = nothingLeft(context, queue, std::move(workersBroker));
  process.start([&] { process.startConfined(socket); });
  return process;
}

RecoveryProcess RecoveryProcess::nothingLeft(const ProcessContext& context,
                                             const std::string& queue,
                                             BrokerProcess workersBroker) {
  RecoveryProcess process(context, queue, "its worker");
  process.broker = std::move(workersBroker.process);
  return process;
}

void RecoveryProcess::search() {
  start([&] {
    const auto [confinedsEnd, brokersEnd] = connectedSockets();
    broker = std::make_unique<Child>([&, file = brokersEnd.get()](Heartbeat&) {
      context.keepOnly({file}, LogAccess::kept);
      endAtTermination();
      return searchStore(context.options, queueName, tool::Fd(file));
    });
    startConfined(confinedsEnd);
  });
}

void RecoveryProcess::start(const std::function<void()>& task) {
  try {
    task();
  } catch (const std::exception& e) {
    logError("recover", "cannot finish streams that were left, trying again", e);
    repeat = true;
  }
}

void RecoveryProcess::startConfined(const tool::Fd& socket) {
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
    repeat = repeat || *status != 0;
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
