#pragma once

#include <cstdint>
#include <string>

#include "shm/fd.hpp"
#include "shm/queue_stats.hpp"

namespace tool {

// The facts that a server publishes about its queue. Reading them needs no lock and does not block.
class Published {
 public:
  // Throws Failure if the server publishes nothing, or if this user or this version cannot read it.
  explicit Published(const std::string& queue);
  ~Published();
  Published(const Published&) = delete;
  Published& operator=(const Published&) = delete;

  // Returns true if there is a process that serves the queue.
  bool isServed() const;

  std::uint64_t server() const { return mapped->server; }
  std::uint64_t worker() const { return mapped->worker; }
  const QueueStats& stats() const { return *mapped; }

 private:
  Fd file;
  const QueueStats* mapped;
};

}  // namespace tool
