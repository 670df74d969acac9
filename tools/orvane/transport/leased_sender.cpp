#include "transport/leased_sender.hpp"

#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <orvane/server_status.hpp>
#include <utility>

#include "exit.hpp"
#include "transport/backoff.hpp"

namespace tool {
namespace {

// A request cannot be interrupted, so it does not wait longer than this.
constexpr unsigned int kSecondsOfOneRequest = 5;
constexpr ox_status_t kLowestServerStatus = 1000;
constexpr std::size_t kMostEnding = 12;  // of 16 that a user may have by default

std::string gotNoLease(const Ox_ErrnoException& error) {
  return "got no lease: " + error.message();
}

}  // namespace

LeasedSender::LeasedSender(std::string socket, orvane::Transport transport,
                           const SendOptions& options, const std::string& label)
    : socket(std::move(socket)), transport(transport), options(options) {
  try {
    takeLease(options.timeoutSeconds, label);
  } catch (const Ox_ErrnoException& e) {
    throw Failure(kNothingSent, gotNoLease(e));
  }
}

Sent LeasedSender::send(const Reader& read, const std::string& label, Progress& progress,
                        Interrupt& interrupt) {
  if (label != leasesLabel) {
    takeAnotherLease(label, interrupt);
  }
  const std::chrono::seconds timeout(options.timeoutSeconds);
  if (lease->ring() != nullptr) {
    if (!ring) {
      ring.emplace(*lease, timeout, interrupt);
    }
    return sendStream(*ring, read, options, progress, interrupt, *lease);
  }
  if (!queue) {
    queue.emplace(lease->queueName(), timeout, interrupt, &*lease);
  }
  return sendStream(*queue, read, options, progress, interrupt, &*lease);
}

void LeasedSender::takeLease(unsigned int timeout, const std::string& label) {
  lease = std::make_unique<orvane::Lease>(socket, timeout, transport, orvane::kDefaultRing, label);
  leasesLabel = label;
}

// A lease counts as one of the user's until the server has ended it too, which may take 0.1 s. So
// some of them end while the next streams are sent, and no more than leave room for other programs.
void LeasedSender::takeAnotherLease(const std::string& label, Interrupt& interrupt) {
  using Clock = std::chrono::steady_clock;
  ring.reset();
  queue.reset();
  shutdown(lease->fd(), SHUT_WR);
  ending.push_back(std::move(lease));
  const auto giveUpAt = Clock::now() + std::chrono::seconds(options.timeoutSeconds);
  std::size_t mostEnding = kMostEnding;
  for (Backoff backoff(interrupt);; backoff.pause()) {
    std::erase_if(ending, [](const auto& one) { return !one->alive(); });
    const bool isLate = Clock::now() >= giveUpAt;
    if (ending.size() > mostEnding && !isLate) {
      continue;
    }
    try {
      return takeLease(std::min(options.timeoutSeconds, kSecondsOfOneRequest), label);
    } catch (const Ox_ErrnoException& e) {
      const bool mayHelp = e.status() == orvane::kStatusTimedOut ||
                           (e.status() == orvane::kLimitReached && !ending.empty());
      if (!mayHelp || isLate) {
        throw Failure(e.status() >= kLowestServerStatus ? kRefused : kUnknown, gotNoLease(e));
      }
      mostEnding = ending.size() - std::min<std::size_t>(ending.size(), 1);
    }
  }
}

}  // namespace tool
