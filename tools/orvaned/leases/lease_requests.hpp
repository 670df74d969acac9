#pragma once

#include <poll.h>

#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "leases/lease_connection.hpp"
#include "leases/lease_socket.hpp"

namespace orvaned {

// Accepts connections, reads their requests for leases, and answers those for totals. It never
// waits; a connection without a request within some seconds is refused.
class LeaseRequests {
 public:
  using Connection = std::unique_ptr<LeaseConnection>;

  // The reason why the producer may not have another lease beside its `pending` requests; empty if
  // it may.
  using Limit = std::function<std::string(const ucred& producer, std::size_t pending)>;

  // The file of a ring's totals; -1 and no name: there is none.
  struct Totals {
    std::string name;
    int file = -1;
  };

  // Returns the first ring after `after`, in the order of names, that the user may see.
  using NextTotals = std::function<Totals(uid_t user, const std::string& after)>;

  // Listens at `path`. One user may have so many connections that have not asked for anything yet.
  LeaseRequests(const std::string& path, mode_t mode, std::size_t mostSilent)
      : socket(path, mode), mostSilent(mostSilent) {}

  // Adds what poll() is to wait for.
  void addTo(std::vector<pollfd>& events) const;

  // Reads what has come; returns the connections whose producers have sent a valid request for a
  // lease.
  std::vector<Connection> serve(const Limit& limit, const NextTotals& nextTotals);

  int lockFile() const { return socket.lockFile(); }

 private:
  using Clock = std::chrono::steady_clock;

  struct PendingRequest {
    Connection connection;
    Clock::time_point deadline;
    bool readsTotals = false;
  };
  using Pending = std::list<PendingRequest>;

  void acceptAll();
  void waitToAccept(int error);
  bool mayLease(Pending::iterator request, const Limit& limit,
                const std::vector<Connection>& granted) const;
  bool answerTotals(Pending::iterator request, const NextTotals& nextTotals) const;
  static bool isOverdue(const PendingRequest& request);
  std::size_t countUntil(Pending::const_iterator end, uid_t user, bool readsTotals) const;

  LeaseSocket socket;
  const std::size_t mostSilent;
  Pending pending;
  Clock::time_point acceptAgain;
  bool cannotAccept = false;
};

// Refuses a request with the server's status and reason.
void refuse(LeaseConnection& connection, int status, const std::string& reason);

}  // namespace orvaned
