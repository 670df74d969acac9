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

// Where producers ask for leases: takes connections and reads what they ask for. Nobody is waited
// for; who does not ask within some seconds is sent away.
class LeaseRequests {
 public:
  using Connection = std::unique_ptr<LeaseConnection>;

  // How many applications are open here: one user's, and all users'.
  struct Count {
    std::size_t own;
    std::size_t all;
  };

  // Why the producer may not have another pair besides what was applied for; empty when it may.
  using Limit = std::function<std::string(const ucred& producer, Count applications)>;

  LeaseRequests(const std::string& path, mode_t mode) : socket(path, mode) {}

  // Adds what poll() is to wait for.
  void addTo(std::vector<pollfd>& events) const;

  // Takes what has come; returns the connections whose producers have properly asked for a lease.
  std::vector<Connection> serve(const Limit& limit);

  int lockFile() const { return socket.lockFile(); }

 private:
  using Clock = std::chrono::steady_clock;

  struct Applicant {
    Connection connection;
    Clock::time_point deadline;
  };

  void acceptAll(const Limit& limit);
  void waitToAccept(int error);
  Count applicationsOf(uid_t user) const;

  LeaseSocket socket;
  std::list<Applicant> applicants;
  Clock::time_point acceptAgain;
  bool cannotAccept = false;
};

// Ends an application with the server's status and reason.
void refuse(LeaseConnection& connection, int status, const std::string& reason);

}  // namespace orvaned
