#include "serve_pair.hpp"

#include <exception>
#include <optional>
#include <orvane/orvane.hpp>

#include "end_watch.hpp"
#include "log.hpp"
#include "queue_pair.hpp"
#include "server_status.hpp"
#include "store.hpp"
#include "worker.hpp"

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

void logReady(const Logger& log, const Options& options, const std::string& queue,
              const LeaseConnection* lease) {
  const std::string producer = lease != nullptr
                                   ? " for user " + std::to_string(lease->producer().uid) +
                                         ", process " + std::to_string(lease->producer().pid)
                                   : "";
  log.log(LEVEL_INFO, "serve", 0, "serving queue %s%s (%zu messages of %zu bytes), storing into %s",
          queue.c_str(), producer.c_str(), options.geometry.messages, options.geometry.messageSize,
          doublePercent(options.store).c_str());
}

void serve(const Options& options, const std::string& queueName, LeaseConnection* lease,
           Heartbeat& heartbeat, const Logger& log) {
  Store store(options.store, queueName, options.sync);
  Geometry geometry = options.geometry;
  if (lease != nullptr) {
    geometry.mode = kOwnerOnly;
  }
  QueuePair queues(queueName, geometry, ownerOf(lease), &heartbeat);
  heartbeat.ready = true;
  const std::string queue = doublePercent(queueName);
  logReady(log, options, queue, lease);
  EndWatch watch(lease, std::chrono::seconds(lease != nullptr ? 0 : options.idleLimit));
  Tell tell = [](const std::string&) {};
  if (lease != nullptr) {
    lease->send("lease " + queueName);
    tell = [lease](const std::string& text) { lease->send(text); };
  }
  Worker worker(queueName, queues, store, tell, Capture(options.capture, queueName));
  const Ending& ending =
      worker.run([&watch](std::chrono::microseconds pause) { return watch.within(pause); });
  log.log(LEVEL_INFO, "serve", 0, "stopped serving queue %s: %s", queue.c_str(),
          ending.reason.c_str());
}

}  // namespace

int servePair(const Options& options, const std::string& queueName, LeaseConnection* lease,
              Heartbeat& heartbeat) {
  const Logger log("orvaned");
  try {
    serve(options, queueName, lease, heartbeat, log);
    return 0;
  } catch (const std::exception& e) {
    log.log(LEVEL_ERROR, "serve", kFailed, "%s", doublePercent(e.what()).c_str());
    if (lease != nullptr && !heartbeat.ready) {
      lease->send("refused " + std::to_string(kNoPair) + " " + e.what());
    }
    return kFailed;
  }
}

}  // namespace orvaned
