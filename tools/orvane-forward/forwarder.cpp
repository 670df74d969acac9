#include "forwarder.hpp"

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <stdexcept>

#include "log.hpp"

namespace forward {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t kMostFound = 1000;
// A safety net: the kernel reports what changes in the store.
constexpr auto kLookPeriod = 300s;
constexpr auto kLookPeriodWithoutReports = 10s;
constexpr auto kRetryPause = 5s;
constexpr auto kMetricsPeriod = 10s;
constexpr auto kCleaningPeriod = 3600s;
constexpr std::size_t kMostNamed = 10;

sigset_t endingSignals() {
  sigset_t set = {};
  sigemptyset(&set);
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    sigaddset(&set, number);
  }
  return set;
}

tool::Fd signalDescriptor() {
  const sigset_t set = endingSignals();
  return tool::Fd(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
}

std::string listOf(const std::vector<std::string>& ids) {
  std::string list;
  for (std::size_t i = 0; i < std::min(ids.size(), kMostNamed); ++i) {
    list += (i == 0 ? "" : ", ") + ids[i];
  }
  return list + (ids.size() > kMostNamed ? ", ..." : "");
}

void logDamage(const std::string& id, const std::string& fault) {
  logWarning("forward", "stream " + id + " is damaged in the store: " + fault);
}

std::string streams(std::uint64_t count) {
  return std::to_string(count) + (count == 1 ? " stream" : " streams");
}

}  // namespace

Forwarder::Forwarder(const Options& options)
    : options(options),
      link({options.nats, options.host, options.replicas, options.verify}, stop, metrics),
      marks(options.store),
      watch(options.store, marks),
      signals(signalDescriptor()),
      wakeUp(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      deadline(options.timeout ? Clock::now() + *options.timeout : Clock::time_point::max()),
      isVerifying(options.verify) {}

Forwarder::~Forwarder() {
  endThreads();
}

int Forwarder::run() {
  if (watch.fd() < 0) {
    logWarning(__func__,
               "the kernel does not report changes of the store, which is looked at "
               "every 10 seconds instead: raise fs.inotify.max_user_instances");
  }
  for (std::size_t i = 0; i < options.streamsAtOnce; ++i) {
    threads.emplace_back([this] { work(); });
  }
  for (;;) {
    step();
    if ((options.once && isAllForwarded()) || Clock::now() >= deadline) {
      return conclude(false);
    }
    if (waitForWork()) {
      return conclude(true);
    }
    requireHealth();
  }
}

// Does what it is time for.
void Forwarder::step() {
  const bool mayFindMore = (isVerifying || hasMore) && !queue.hasWaiting() && !hasFailedNow();
  if (Clock::now() >= nextLook || mayFindMore) {
    look();
  }
  if (Clock::now() >= nextMetrics) {
    writeMetricsNow();
  }
}

bool Forwarder::hasFailedNow() {
  const std::lock_guard lock(mutex);
  return hasFailed;
}

// It is, when the cluster can be used, all that was found is dealt with, and a look after that
// finds nothing.
bool Forwarder::isAllForwarded() {
  if (!link.isOpen() || !queue.isIdle()) {
    return false;
  }
  if (foundAny) {
    const auto pause = hasFailedNow() ? kRetryPause : 0s;
    nextLook = std::min<Clock::time_point>(nextLook, Clock::now() + pause);
  }
  return !foundAny;
}

void Forwarder::look() {
  StoreWatch::Found found;
  if (isVerifying) {
    found = watch.endedAfter(verified, kMostFound);
    isVerifying = !found.ids.empty();
    verified = isVerifying ? found.ids.back() : verified;
    nextLook = Clock::now() + (isVerifying ? kLookPeriod : 0s);
    foundAny = true;  // what has ended meanwhile is still to be found
  } else {
    std::set<std::string> without;
    {
      const std::lock_guard lock(mutex);
      without = unreadable;
      hasFailed = false;
    }
    found = watch.lookAround(kMostFound, without);
    metrics.waiting = found.count;
    hasMore = found.count > found.ids.size();
    foundAny = found.count > 0;
    nextLook = Clock::now() + (watch.fd() < 0 ? kLookPeriodWithoutReports : kLookPeriod);
  }
  queue.add(found.ids);
  if (Clock::now() >= nextCleaning) {
    marks.removeStale();
    nextCleaning = Clock::now() + kCleaningPeriod;
  }
}

void Forwarder::takeChanges() {
  bool isIncomplete = false;
  const std::vector<std::string> ended = watch.changes(isIncomplete);
  metrics.waiting += ended.size();
  queue.add(ended);
  if (isIncomplete) {
    nextLook = std::min(nextLook, Clock::now() + kLookPeriodWithoutReports);
  }
}

// Waits until there is something to do. Returns true after a signal that ends the program.
bool Forwarder::waitForWork() {
  const auto next = std::min({nextLook, nextMetrics, deadline});
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now());
  const auto limit = std::clamp<std::int64_t>(left.count(), 0, 60000);
  std::array<pollfd, 3> files = {
      {{signals.get(), POLLIN, 0}, {wakeUp.get(), POLLIN, 0}, {watch.fd(), POLLIN, 0}}};
  poll(files.data(), files.size(), static_cast<int>(limit));
  std::uint64_t count = 0;
  while (read(wakeUp.get(), &count, sizeof count) > 0) {
  }
  takeChanges();
  const std::lock_guard lock(mutex);
  if (hasFailed) {
    nextLook = std::min(nextLook, Clock::now() + kRetryPause);
  }
  return files[0].revents != 0;
}

// Throws what has ended a thread.
void Forwarder::requireHealth() {
  const std::lock_guard lock(mutex);
  if (failure) {
    std::rethrow_exception(failure);
  }
}

int Forwarder::conclude(bool isInterrupted) {
  endThreads();
  requireHealth();
  const auto left = watch.lookAround(kMostNamed + 1, unreadable);
  metrics.waiting = left.count;
  writeMetricsNow();
  if (!options.once) {
    return 0;
  }
  if (left.count > 0) {
    logError(__func__, streams(left.count) + " left: " + listOf(left.ids));
  }
  const bool isAll = left.count == 0 && unreadable.empty() && metrics.differing == 0;
  return isAll && !isInterrupted ? 0 : kFailed;
}

void Forwarder::writeMetricsNow() {
  nextMetrics = Clock::now() + kMetricsPeriod;
  if (options.metrics.empty()) {
    nextMetrics = Clock::time_point::max();
    return;
  }
  const std::string trouble = writeMetrics(metrics, options.metrics);
  if (!trouble.empty() && trouble != metricsTrouble) {
    logWarning(__func__, trouble);
  }
  metricsTrouble = trouble;
}

void Forwarder::endThreads() {
  stop.request();
  queue.close();
  link.close();
  for (std::thread& thread : threads) {
    thread.join();
  }
  threads.clear();
}

// The other threads run this.
void Forwarder::work() {
  try {
    link.open();
    wake();
    StreamSender sender(
        options.store, options.host, [this] { return link.chunkSize(); },
        [this](const Chunk& chunk) {
          const Answer answer = options.verify ? link.verify(chunk) : link.store(chunk);
          return answer != Answer::tooLarge;
        });
    while (const auto id = queue.take()) {
      forward(sender, *id);
      queue.finish(*id);
      wake();
    }
  } catch (const Stopped&) {
  } catch (...) {
    const std::lock_guard lock(mutex);
    failure = failure ? failure : std::current_exception();
  }
  wake();
}

void Forwarder::forward(StreamSender& sender, const std::string& id) {
  try {
    const StreamSender::Report report = sender.send(id);
    for (const std::string& fault : report.damaged) {
      ++metrics.damaged;
      logDamage(id, fault);
    }
    if (report.result == StreamSender::Result::unreadable) {
      logError(__func__, "stream " + id + " stays here: its manifest is damaged: " + report.reason);
      const std::lock_guard lock(mutex);
      unreadable.insert(id);
      metrics.unreadable = unreadable.size();
    } else if (report.result == StreamSender::Result::forwarded) {
      marks.add(id);
      ++metrics.streams;
      logInfo(__func__, "stream " + id + " is forwarded");
    }
    metrics.waiting -= metrics.waiting > 0 ? 1U : 0U;
  } catch (const Refused&) {
    throw;
  } catch (const std::runtime_error& e) {
    ++metrics.failures;
    logError(__func__, "stream " + id + " is tried again: " + e.what());
    const std::lock_guard lock(mutex);
    hasFailed = true;
  }
}

void Forwarder::wake() const {
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t size = write(wakeUp.get(), &one, sizeof one);
}

}  // namespace forward
