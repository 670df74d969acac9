#include "supervisor/pair_tasks.hpp"

#include <unistd.h>

#include <exception>
#include <memory>
#include <optional>
#include <orvane/orvane.hpp>
#include <orvane/server_status.hpp>
#include <stdexcept>
#include <utility>

#include "log.hpp"
#include "store/broker.hpp"
#include "store/brokered_store.hpp"
#include "store/store.hpp"
#include "supervisor/pair_files.hpp"
#include "worker/confinement.hpp"
#include "worker/end_watch.hpp"
#include "worker/queue_pair.hpp"
#include "worker/ring_source.hpp"
#include "worker/ring_totals_file.hpp"
#include "worker/worker.hpp"

namespace orvaned {
namespace {

using orvane::server::LEVEL_ERROR;
using orvane::server::LEVEL_INFO;
using orvane::server::Logger;

constexpr mode_t kOwnerOnly = 0600;
constexpr int kFailed = 1;

std::optional<Owner> ownerOf(const LeaseConnection* lease) {
  return lease != nullptr ? std::optional(Owner{lease->producer().uid, lease->producer().gid})
                          : std::nullopt;
}

Geometry geometryFor(const Options& options, const LeaseConnection* lease) {
  Geometry geometry = options.geometry;
  if (lease != nullptr) {
    geometry.mode = kOwnerOnly;
  }
  return geometry;
}

// 0 for queues.
std::uint64_t ringBytes(const LeaseConnection* lease) {
  return lease != nullptr ? lease->ringBytes() : 0;
}

std::unique_ptr<StoreAccess> storeFor(const Options& options, const std::string& queue,
                                      BrokerClient& broker) {
  if (options.store == kNullStore) {
    return std::make_unique<LocalAccess>(options.store, StreamOrigin{.queue = queue}, options.sync);
  }
  return std::make_unique<BrokeredAccess>(broker, options.store);
}

// At a high level, the data of one large message may take longer than a worker may use the
// processor without a sign of life.
Compression compressionFor(const Options& options, Heartbeat& heartbeat) {
  return {.level = options.compressionLevel, .working = [&heartbeat] { ++heartbeat.messages; }};
}

void logReady(const Logger& log, const Options& options, const std::string& queue,
              const LeaseConnection* lease) {
  const std::string producer = lease != nullptr
                                   ? " for user " + std::to_string(lease->producer().uid) +
                                         ", process " + std::to_string(lease->producer().pid)
                                   : "";
  const std::string store = doublePercent(options.store);
  if (ringBytes(lease) != 0) {
    log.log(LEVEL_INFO, "serve", 0, "serving ring %s%s (%llu bytes), storing into %s",
            queue.c_str(), producer.c_str(), static_cast<unsigned long long>(ringBytes(lease)),
            store.c_str());
    return;
  }
  log.log(LEVEL_INFO, "serve", 0, "serving queue %s%s (%zu messages of %zu bytes), storing into %s",
          queue.c_str(), producer.c_str(), options.geometry.messages, options.geometry.messageSize,
          store.c_str());
}

// The source of the batches, and how it is handed to the producer.
class Source {
 public:
  Source(const Options& options, const std::string& queueName, LeaseConnection* lease,
         const tool::Fd& ringTotals, Heartbeat& heartbeat)
      : name(queueName), lease(lease) {
    if (const std::uint64_t bytes = ringBytes(lease)) {
      totals.emplace(ringTotals, bytes, lease->producer().uid);
      ring.emplace(bytes, heartbeat, totals->totals());
    } else {
      queues.emplace(queueName, geometryFor(options, lease), ownerOf(lease), &heartbeat);
    }
  }

  BatchSource& batches() { return ring ? static_cast<BatchSource&>(*ring) : *queues; }

  // Before the calls are restricted: a confined process passes no files on. From then on the
  // producer has its lease, so the death of this process is not a refusal.
  void grantRing(Heartbeat& heartbeat) {
    if (ring) {
      heartbeat.ready = true;
      lease->sendRing({name, lease->ringBytes()}, ring->reader());
    }
  }

  void grantQueues() {
    if (queues) {
      queues->leaveNames();
    }
    if (queues && lease != nullptr) {
      lease->send(orvane::LeaseGranted{name});
    }
  }

 private:
  const std::string name;
  LeaseConnection* const lease;
  std::optional<QueuePair> queues;
  std::optional<RingTotalsFile> totals;
  std::optional<RingSource> ring;
};

// Everything that needs rights. The producer can already use the queues, but nothing that it may
// have written into them has been read yet.
struct Prepared {
  Prepared(const Options& options, const std::string& queueName, LeaseConnection* lease,
           const tool::Fd& ringTotals, BrokerClient& broker, Heartbeat& heartbeat)
      : source(options, queueName, lease, ringTotals, heartbeat),
        watch(lease, std::chrono::seconds(lease != nullptr ? 0 : options.idleLimit)),
        store(storeFor(options, queueName, broker), queueName, options.sync,
              compressionFor(options, heartbeat)),
        worker(queueName, source.batches(), store, lease, Capture(options.capture, queueName)) {}

  Source source;
  EndWatch watch;
  Store store;
  Worker worker;
};

void serve(const Options& options, const std::string& queueName, LeaseConnection* lease,
           const tool::Fd& ringTotals, BrokerClient& broker, pid_t supervisor, Heartbeat& heartbeat,
           const Logger& log) {
  broker.checkStore();
  Prepared prepared(options, queueName, lease, ringTotals, broker, heartbeat);
  dropRights(options.confinement, supervisor);
  prepared.source.grantRing(heartbeat);
  restrictCalls(options.confinement, &heartbeat.refusedCall);
  heartbeat.ready = true;
  const std::string queue = doublePercent(queueName);
  logReady(log, options, queue, lease);
  prepared.source.grantQueues();
  const Ending& ending = prepared.worker.run(
      [&prepared](std::chrono::microseconds pause) { return prepared.watch.within(pause); });
  log.log(LEVEL_INFO, "serve", 0, "stopped serving queue %s: %s", queue.c_str(),
          ending.reason.c_str());
}

}  // namespace

int runWorker(const Options& options, const std::string& queueName, LeaseConnection* lease,
              tool::Fd brokerSocket, tool::Fd ringTotals, pid_t supervisor, Heartbeat& heartbeat) {
  const Logger log("orvaned");
  // The log needs the broker until the process ends.
  static BrokerClient broker(std::move(brokerSocket));
  broker.redirectLog();
  try {
    serve(options, queueName, lease, ringTotals, broker, supervisor, heartbeat, log);
    return 0;
  } catch (const PairFailed& e) {
    log.log(LEVEL_ERROR, "serve", kFailed, "%s", doublePercent(e.what()).c_str());
  } catch (const std::runtime_error& e) {
    if (heartbeat.ready) {
      throw;
    }
    log.log(LEVEL_ERROR, "serve", kFailed, "%s", doublePercent(e.what()).c_str());
    if (lease != nullptr) {
      lease->send(orvane::LeaseRefused{orvane::kNoPair, e.what()});
    }
  }
  return kFailed;
}

int runBroker(const Options& options, const StreamOrigin& origin, tool::Fd worker,
              pid_t supervisor) {
  Broker({options.store, origin, options.sync}, std::move(worker)).run();
  if (getppid() != supervisor) {
    removePair(origin.queue);
  }
  return 0;
}

}  // namespace orvaned
