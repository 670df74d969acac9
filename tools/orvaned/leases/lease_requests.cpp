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
constexpr std::size_t kMostReaders = 2;  // connections of one user that read totals
constexpr char kUnderstood[] =
    R"(this server understands "orvane 1 lease", "orvane 1 ring BYTES" and "orvane 1 totals")";

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

std::vector<LeaseRequests::Connection> LeaseRequests::serve(const Limit& limit,
                                                            const NextTotals& nextTotals) {
  acceptAll();
  std::vector<Connection> granted;
  for (auto request = pending.begin(); request != pending.end();) {
    bool isOver = true;
    switch (request->connection->readRequest()) {
      case LeaseConnection::Request::lease:
        if (mayLease(request, limit, granted)) {
          granted.push_back(std::move(request->connection));
        }
        break;
      case LeaseConnection::Request::totals:
        isOver = !answerTotals(request, nextTotals);
        break;
      case LeaseConnection::Request::bad:
        refuse(*request->connection, orvane::kBadRequest, kUnderstood);
        break;
      case LeaseConnection::Request::end:
        break;
      default:
        isOver = isOverdue(*request);
    }
    request = isOver ? pending.erase(request) : std::next(request);
  }
  return granted;
}

// A connection that has received totals ends without a refusal.
bool LeaseRequests::isOverdue(const PendingRequest& request) {
  if (Clock::now() < request.deadline) {
    return false;
  }
  if (!request.readsTotals) {
    refuse(*request.connection, orvane::kBadRequest, "nothing was asked for in time");
  }
  return true;
}

// A user's earlier connections count as its leases even before they send a request.
bool LeaseRequests::mayLease(Pending::iterator request, const Limit& limit,
                             const std::vector<Connection>& granted) const {
  LeaseConnection& connection = *request->connection;
  const uid_t user = connection.producer().uid;
  if (const std::string reason = wrongSize(connection.ringBytes()); !reason.empty()) {
    // Not kBadRequest: a producer that may do without a ring would then ask for queues, and nobody
    // would learn of the size.
    refuse(connection, orvane::kNoPair, reason);
    return false;
  }
  const auto own = std::count_if(granted.begin(), granted.end(), [user](const Connection& one) {
    return one->producer().uid == user;
  });
  const std::size_t before = countUntil(request, user, false) + static_cast<std::size_t>(own);
  if (const std::string reason = limit(connection.producer(), before); !reason.empty()) {
    refuse(connection, orvane::kLimitReached, reason);
    return false;
  }
  return true;
}

// Returns false when the connection is over.
bool LeaseRequests::answerTotals(Pending::iterator request, const NextTotals& nextTotals) const {
  LeaseConnection& connection = *request->connection;
  const uid_t user = connection.producer().uid;
  if (!request->readsTotals && countUntil(pending.end(), user, true) >= kMostReaders) {
    refuse(connection, orvane::kLimitReached,
           "user " + std::to_string(user) + " reads totals over " + std::to_string(kMostReaders) +
               " connections, as many as it may: end one");
    return false;
  }
  request->readsTotals = true;
  request->deadline = Clock::now() + kTimeToAsk;
  const Totals totals = nextTotals(user, connection.totalsAfter());
  return connection.sendTotals({totals.name}, totals.file);
}

// Connections are limited before they ask for anything. Otherwise one user could keep the others
// away with open connections.
void LeaseRequests::acceptAll() {
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
    const uid_t user = connection->producer().uid;
    if (countUntil(pending.end(), user, false) < mostSilent) {
      pending.push_back({std::move(connection), Clock::now() + kTimeToAsk});
    } else {
      refuse(*connection, orvane::kLimitReached,
             "user " + std::to_string(user) + " has " + std::to_string(mostSilent) +
                 " connections that have not asked for anything yet");
    }
  }
}

// The number of a user's connections before `end` that read totals, or that have not asked yet.
std::size_t LeaseRequests::countUntil(Pending::const_iterator end, uid_t user,
                                      bool readsTotals) const {
  return static_cast<std::size_t>(
      std::count_if(pending.begin(), end, [&](const PendingRequest& one) {
        return one.readsTotals == readsTotals && one.connection->producer().uid == user;
      }));
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

void refuse(LeaseConnection& connection, int status, const std::string& reason) {
  static const orvane::server::Logger log("leases");
  const LogSubject subject(connection.producer().uid);
  log.log(orvane::server::LEVEL_WARNING, __func__, status, "user %u, process %d: %s",
          connection.producer().uid, connection.producer().pid, doublePercent(reason).c_str());
  connection.send(orvane::LeaseRefused{status, reason});
}

}  // namespace orvaned
