#pragma once

#include <cstdint>
#include <string>

#include "shm/fd.hpp"
#include "shm/queue_stats.hpp"

namespace tool {

// What its server publishes about a queue. Looking at it takes no lock and waits for nobody.
class Published {
 public:
  // Throws Failure when the server publishes nothing, or nothing that this user or this version can
  // read.
  explicit Published(const std::string& queue);
  ~Published();
  Published(const Published&) = delete;
  Published& operator=(const Published&) = delete;

  // Is there still a process that serves the queue?
  bool isServed() const;

  std::uint64_t server() const { return mapped->server; }
  std::uint64_t worker() const { return mapped->worker; }
  const QueueStats& stats() const { return *mapped; }

 private:
  Fd file;
  const QueueStats* mapped;
};

}  // namespace tool
