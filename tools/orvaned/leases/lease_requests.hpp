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

// Accepts the connections of producers and reads their requests for leases. It never waits; a
// connection without a request within some seconds is refused.
class LeaseRequests {
 public:
  using Connection = std::unique_ptr<LeaseConnection>;

  // The number of connections without a request yet: of one user, and of all users.
  struct Count {
    std::size_t own;
    std::size_t all;
  };

  // The reason why the producer may not request another pair; empty if it may.
  using Limit = std::function<std::string(const ucred& producer, Count pending)>;

  LeaseRequests(const std::string& path, mode_t mode) : socket(path, mode) {}

  // Adds what poll() is to wait for.
  void addTo(std::vector<pollfd>& events) const;

  // Reads what has come; returns the connections whose producers have sent a valid request.
  std::vector<Connection> serve(const Limit& limit);

  int lockFile() const { return socket.lockFile(); }

 private:
  using Clock = std::chrono::steady_clock;

  struct PendingRequest {
    Connection connection;
    Clock::time_point deadline;
  };

  void acceptAll(const Limit& limit);
  void waitToAccept(int error);
  Count pendingOf(uid_t user) const;

  LeaseSocket socket;
  std::list<PendingRequest> pending;
  Clock::time_point acceptAgain;
  bool cannotAccept = false;
};

// Refuses a request with the server's status and reason.
void refuse(LeaseConnection& connection, int status, const std::string& reason);

}  // namespace orvaned
