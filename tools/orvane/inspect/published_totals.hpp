#pragma once

#include <cstdint>
#include <string>

#include "shm/fd.hpp"
#include "shm/totals.hpp"
#include "transport/totals_requests.hpp"

namespace tool {

// The facts that a server publishes about a queue or a ring. Reading them needs no lock and does
// not block.
class PublishedTotals {
 public:
  // Throws Failure if the server publishes nothing, or if this user or this version cannot read it.
  explicit PublishedTotals(const std::string& queue);
  explicit PublishedTotals(ServedRing ring);
  ~PublishedTotals();
  PublishedTotals(const PublishedTotals&) = delete;
  PublishedTotals& operator=(const PublishedTotals&) = delete;

  const std::string& name() const { return queueOrRing; }

  // Null for a queue.
  const RingTotals* ring() const;

  // Returns true if there is a process that serves the queue, or if a server said so of the ring.
  bool isServed() const;

  std::uint64_t server() const { return mapped->server; }
  std::uint64_t worker() const { return mapped->worker; }
  const Totals& totals() const { return *mapped; }

 private:
  const std::string queueOrRing;
  const Fd file;
  const Totals* mapped;
};

}  // namespace tool
