#include "leases/lease_requests.hpp"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <orvane/orvane.hpp>
#include <orvane/server_status.hpp>
#include <system_error>
#include <utility>

#include "log.hpp"

namespace orvaned {
namespace {

constexpr std::chrono::seconds kTimeToAsk{5};
constexpr std::chrono::seconds kBetweenTries{1};

// The reason why a ring of this size cannot be had; empty for a valid size, and for queues.
std::string wrongSize(std::uint64_t bytes) {
  const bool valid =
      std::has_single_bit(bytes) && bytes >= orvane::kSmallestRing && bytes <= orvane::kLargestRing;
  if (valid || bytes == 0) {
    return "";
  }
  return "a ring has " + std::to_string(orvane::kSmallestRing) + " to " +
         std::to_string(orvane::kLargestRing) + " bytes, a power of two, and not " +
         std::to_string(bytes);
}

}  // namespace

void LeaseRequests::addTo(std::vector<pollfd>& events) const {
  if (Clock::now() >= acceptAgain) {
    events.push_back({socket.fd(), POLLIN, 0});
  }
  for (const PendingRequest& request : pending) {
    events.push_back({request.connection->fd(), POLLIN, 0});
  }
}

std::vector<LeaseRequests::Connection> LeaseRequests::serve(const Limit& limit) {
  acceptAll(limit);
  std::vector<Connection> asked;
  std::erase_if(pending, [&](PendingRequest& request) {
    switch (request.connection->readRequest()) {
      case LeaseConnection::Request::lease:
        if (const std::string reason = wrongSize(request.connection->ringBytes());
            !reason.empty()) {
          // Not kBadRequest: a producer that may do without a ring would then ask for queues, and
          // nobody would learn of the size.
          refuse(*request.connection, orvane::kNoPair, reason);
        } else {
          asked.push_back(std::move(request.connection));
        }
        return true;
      case LeaseConnection::Request::bad:
        refuse(*request.connection, orvane::kBadRequest,
               R"(this server understands "orvane 1 lease" and "orvane 1 ring BYTES")");
        return true;
      case LeaseConnection::Request::end:
        return true;
      default:
        if (Clock::now() < request.deadline) {
          return false;
        }
        refuse(*request.connection, orvane::kBadRequest, "nothing was asked for in time");
        return true;
    }
  });
  return asked;
}

// A user's connections count as its pairs even before they send a request. Otherwise one user could
// keep the others away with open connections.
void LeaseRequests::acceptAll(const Limit& limit) {
  for (;;) {
    tool::Fd fd = socket.accept();
    if (fd.get() < 0) {
      waitToAccept(errno);
      return;
    }
    cannotAccept = false;
    auto connection = std::make_unique<LeaseConnection>(std::move(fd));
    if (connection->cameTooLate()) {
      continue;  // a forked child holds the connection, and would hold the lease
    }
    const ucred& producer = connection->producer();
    const std::string reason = limit(producer, pendingOf(producer.uid));
    if (reason.empty()) {
      pending.push_back({std::move(connection), Clock::now() + kTimeToAsk});
    } else {
      refuse(*connection, orvane::kLimitReached, reason);
    }
  }
}

// Waits a second when no file descriptor is free, instead of trying all the time.
void LeaseRequests::waitToAccept(int error) {
  if (error == EAGAIN || error == EINTR || error == ECONNABORTED) {
    return;
  }
  acceptAgain = Clock::now() + kBetweenTries;
  if (!std::exchange(cannotAccept, true)) {
    static const orvane::server::Logger log("leases");
    log.log(orvane::server::LEVEL_WARNING, __func__, error,
            "cannot accept a connection, and tries again each second: %s",
            std::generic_category().message(error).c_str());
  }
}

LeaseRequests::Count LeaseRequests::pendingOf(uid_t user) const {
  const auto own = std::count_if(pending.begin(), pending.end(), [user](const auto& one) {
    return one.connection->producer().uid == user;
  });
  return {static_cast<std::size_t>(own), pending.size()};
}

void refuse(LeaseConnection& connection, int status, const std::string& reason) {
  static const orvane::server::Logger log("leases");
  const LogSubject subject(connection.producer().uid);
  log.log(orvane::server::LEVEL_WARNING, __func__, status, "user %u, process %d: %s",
          connection.producer().uid, connection.producer().pid, doublePercent(reason).c_str());
  connection.send(orvane::LeaseRefused{status, reason});
}

}  // namespace orvaned
