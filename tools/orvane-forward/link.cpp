#include "link.hpp"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <utility>

#include "log.hpp"

namespace forward {
namespace {

using namespace std::chrono_literals;

constexpr auto kFullPause = 5s;

// A cluster that has just started may not know its streams for a moment.
constexpr int kMissingBeforeMade = 3;

// A connection that seems to be well, but over which so many attempts have failed, is replaced by
// one to any server.
constexpr int kFailuresOfAConnection = 3;

}  // namespace

Link::Link(Settings settings, Stop& stop, Metrics& metrics)
    : settings(std::move(settings)), stop(stop), metrics(metrics) {}

void Link::open() {
  const std::lock_guard first(opening);
  if (wasReady) {
    return;
  }
  connect(nullptr);
  waitUntilReady();
}

std::shared_ptr<Connection> Link::current() {
  const std::lock_guard lock(mutex);
  return connection;
}

// Makes the first connection, or the next one, unless another thread has done so meanwhile.
void Link::connect(const std::shared_ptr<Connection>& ended) {
  const std::lock_guard first(connecting);
  if (current() != ended) {
    return;
  }
  for (Backoff backoff;; stop.wait(backoff.next())) {
    stop.check();
    try {
      auto made = std::make_shared<Connection>(settings.nats, settings.host);
      const std::lock_guard lock(mutex);
      connection = std::move(made);
      if (isClosed) {
        throw Stopped();
      }
      return;
    } catch (const Refused&) {
      throw;
    } catch (const std::runtime_error& e) {
      report(e.what());
    }
  }
}

// Asks with small messages, so that a chunk is sent again only when it can be stored.
void Link::waitUntilReady() {
  int missing = 0;
  for (Backoff backoff; !isReady(missing); stop.wait(backoff.next())) {
    stop.check();
  }
  report("");
  wasReady = true;
}

bool Link::isReady(int& missing) {
  const std::shared_ptr<Connection> used = current();
  metrics.connected = used->isConnected();
  used->requirePermission();
  if (!metrics.connected) {
    report("no server of " + settings.nats.servers + " is connected");
    if (used->hasEnded()) {
      connect(used);
    }
    return false;
  }
  const Cluster cluster(*used);
  const ClusterState state = cluster.state(settings.replicas);
  if (state.is == ClusterState::Is::ready) {
    if (!state.fault.empty()) {
      throw Refused(std::string("the stream ") + kClusterStream + " is not used: " + state.fault);
    }
    const std::lock_guard lock(mutex);
    messageLimit = state.messageLimit;
    return true;
  }
  report(state.reason);
  missing = state.is == ClusterState::Is::missing ? missing + 1 : 0;
  if (missing >= kMissingBeforeMade && cluster.make(settings.replicas)) {
    logInfo("open", std::string("the stream ") + kClusterStream + " is made");
  }
  return false;
}

// Logs a trouble when it begins, and its end.
void Link::report(const std::string& trouble) {
  const std::lock_guard lock(mutex);
  if (trouble != lastTrouble) {
    lastTrouble = trouble;
    if (trouble.empty()) {
      logInfo("open", "the stream can be used");
    } else {
      logWarning("open", trouble + "; trying again");
    }
  }
}

std::size_t Link::chunkSize() {
  std::uint64_t limit = current()->payloadLimit();
  {
    const std::lock_guard lock(mutex);
    limit = std::min(limit, messageLimit.value_or(limit));
  }
  const std::size_t size = chunkSizeFor(limit);
  if (size == 0) {
    throw Refused("the servers take messages of at most " + std::to_string(limit) +
                  " bytes: raise max_payload");
  }
  return size;
}

Answer Link::store(const Chunk& chunk) {
  bool withId = true;
  int failures = 0;
  for (Backoff backoff;;) {
    stop.check();
    const std::shared_ptr<Connection> used = current();
    std::string reason;
    const Answer answer = Cluster(*used).store(chunk, withId, reason);
    switch (answer) {
      case Answer::stored:
        ++metrics.chunks;
        metrics.bytes += chunk.data.size();
        metrics.lastStored = std::time(nullptr);
        return answer;
      case Answer::known:
        ++metrics.known;
        return answer;
      case Answer::tooLarge:
        return answer;
      case Answer::repeated:
        withId = false;  // the subject then tells whether it is stored
        break;
      case Answer::full:
        ++metrics.fullPauses;
        report("the cluster is full");
        stop.wait(kFullPause);
        break;
      case Answer::unavailable:
        ++metrics.repeats;
        if (++failures % kFailuresOfAConnection == 0) {
          logWarning(__func__, "a chunk was not stored " + std::to_string(failures) + " times (" +
                                   reason + "); connecting again");
          used->close();
        }
        stop.wait(backoff.next());
        waitUntilReady();
        break;
    }
  }
}

Answer Link::verify(const Chunk& chunk) {
  if (isStored(chunk)) {
    ++metrics.known;
    return Answer::known;
  }
  return store(chunk);
}

bool Link::isStored(const Chunk& chunk) {
  for (Backoff backoff;; stop.wait(backoff.next())) {
    stop.check();
    const std::shared_ptr<Connection> used = current();
    natsStatus status = NATS_OK;
    const Message message = Cluster(*used).stored(chunk.subject, status);
    if (message) {
      const auto data = dataOf(message);
      if (!std::equal(data.begin(), data.end(), chunk.data.begin(), chunk.data.end()) ||
          headerOf(message, kOffsetHeader) != std::to_string(chunk.offset)) {
        ++metrics.differing;
        logError("verify", "the cluster has another content under " + chunk.subject);
      }
      return true;
    }
    if (status == NATS_OK) {
      return false;
    }
    waitUntilReady();
  }
}

void Link::close() {
  const std::lock_guard lock(mutex);
  isClosed = true;
  if (connection) {
    connection->close();
  }
}

}  // namespace forward
