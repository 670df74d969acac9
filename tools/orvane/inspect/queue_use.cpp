#include "inspect/queue_use.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <memory>
#include <optional>
#include <utility>

#include "exit.hpp"
#include "inspect/published_totals.hpp"
#include "shm/shm_names.hpp"
#include "shm/totals.hpp"
#include "transport/backoff.hpp"

namespace tool {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint64_t kNanosecondsInASecond = 1000000000;

// Null if the server publishes no totals, or not to this user.
std::unique_ptr<PublishedTotals> totalsOf(const std::string& queue) {
  try {
    return std::make_unique<PublishedTotals>(queue);
  } catch (const Failure&) {
    return nullptr;
  }
}

// A worker may be dead for a moment, until its server has made the queue anew.
void requireServer(const PublishedTotals& totals) {
  const auto server = static_cast<pid_t>(totals.server());
  if (!totals.isServed() && kill(server, 0) != 0 && errno == ESRCH) {
    throw Failure(kNothingSent, "the server of queue " + totals.name() + ", process " +
                                    std::to_string(server) +
                                    ", is gone: start orvaned again, which serves a new queue");
  }
}

// The stream that is open, with "" for none.
std::string openStream(const PublishedTotals& totals) {
  // There is none while the worker changes it, so a producer is there.
  return streamOf(totals.totals()).value_or("?");
}

// "20261121T101006-29989_0" began at "2026-11-21T10:10:06Z". Returns "" for another id.
std::string beginOf(const std::string& stream) {
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
  if (std::sscanf(stream.c_str(), "%4d%2d%2dT%2d%2d%2d-", &year, &month, &day, &hour, &minute,
                  &second) != 6) {
    return "";
  }
  char text[96];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02dZ", year, month, day, hour, minute,
                second);
  return text;
}

// Returns the process that holds the lock of a file, or "" if the system does not tell it: it is in
// another container, or has just let go.
std::string holderOf(const Fd& file) {
  struct stat status = {};
  fstat(file.get(), &status);
  char place[64];
  std::snprintf(place, sizeof place, " %02x:%02x:%llu ", major(status.st_dev), minor(status.st_dev),
                static_cast<unsigned long long>(status.st_ino));
  // 1: FLOCK  ADVISORY  WRITE 4711 00:19:1234 0 EOF
  std::ifstream locks("/proc/locks");
  for (std::string line; std::getline(locks, line);) {
    unsigned long process = 0;
    if (line.find(place) != std::string::npos &&
        std::sscanf(line.c_str(), "%*s FLOCK ADVISORY WRITE %lu", &process) == 1 && process > 0) {
      return std::to_string(process);
    }
  }
  return "";
}

constexpr char kRemedy[] = ": wait, --wait SECONDS, or use --socket";

std::string sinceText(const PublishedTotals& totals) {
  const std::string begin = beginOf(openStream(totals));
  return begin.empty() ? "" : " since " + begin;
}

// Another sender holds the lock; no totals, if they cannot be read.
std::string lockedText(const std::string& queue, const std::string& process,
                       const PublishedTotals* totals) {
  return "queue " + queue + " is in use" + (process.empty() ? "" : " by process " + process) +
         (totals == nullptr ? "" : sinceText(*totals)) + kRemedy;
}

// A producer that holds no lock has a stream open, or died.
std::string openStreamText(const PublishedTotals& totals) {
  const std::uint64_t age = monotonicNow() - totals.totals().lastBatch;
  return "queue " + totals.name() + " is in use" + sinceText(totals) + ", its last batch came " +
         std::to_string(age / kNanosecondsInASecond) + " s ago" + kRemedy +
         "; if its producer died, --take-over cuts its stream off";
}

// A server may have made the queue anew after its file was opened.
bool isAt(const std::string& path, const Fd& file) {
  struct stat here = {};
  struct stat there = {};
  return fstat(file.get(), &here) == 0 && stat(path.c_str(), &there) == 0 &&
         here.st_ino == there.st_ino;
}

// Returns the locked file of the queue, none if it cannot be opened, or nothing if the queue is in
// use. Throws Failure instead of the latter unless this process goes on waiting.
std::optional<Fd> tryToLock(const std::string& queue, bool takeOver, bool waits) {
  const auto totals = totalsOf(queue);
  if (totals) {
    requireServer(*totals);
  }
  const std::string path = kShmFolder + queue;
  Fd file;
  bool locked = false;
  do {
    file = Fd(open(path.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (file.get() < 0) {
      return file;
    }
    locked = flock(file.get(), LOCK_EX | LOCK_NB) == 0;
  } while (locked && !isAt(path, file));
  if (locked && (takeOver || !totals || openStream(*totals).empty())) {
    return file;
  }
  if (waits) {
    return std::nullopt;
  }
  throw Failure(kNothingSent,
                locked ? openStreamText(*totals) : lockedText(queue, holderOf(file), totals.get()));
}

}  // namespace

Fd becomeOnlySender(const std::string& queue, const QueueUseOptions& options,
                    Interrupt& interrupt) {
  const auto deadline = Clock::now() + std::chrono::seconds(options.waitSeconds);
  for (Backoff backoff(interrupt);; backoff.pause()) {
    if (auto file = tryToLock(queue, options.takeOver, Clock::now() < deadline)) {
      return std::move(*file);
    }
  }
}

}  // namespace tool
