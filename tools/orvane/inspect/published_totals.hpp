#pragma once

#include <cstdint>
#include <string>

#include "shm/fd.hpp"
#include "shm/totals.hpp"

namespace tool {

// The facts that a server publishes about its queue. Reading them needs no lock and does not block.
class PublishedTotals {
 public:
  // Throws Failure if the server publishes nothing, or if this user or this version cannot read it.
  explicit PublishedTotals(const std::string& queue);
  ~PublishedTotals();
  PublishedTotals(const PublishedTotals&) = delete;
  PublishedTotals& operator=(const PublishedTotals&) = delete;

  // Returns true if there is a process that serves the queue.
  bool isServed() const;

  std::uint64_t server() const { return mapped->server; }
  std::uint64_t worker() const { return mapped->worker; }
  const Totals& totals() const { return *mapped; }

 private:
  Fd file;
  const Totals* mapped;
};

}  // namespace tool
