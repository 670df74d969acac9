#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "geometry.hpp"
#include "shm/fd.hpp"
#include "shm/queue_stats.hpp"

namespace orvaned {

// The file with a pair's totals, created and removed with this object. It stays the server's own;
// every user of the pair may read it.
class StatsFile {
 public:
  // Throws std::runtime_error, and then leaves no file. `readers` is the group of a leased pair's
  // producer, which may read the file even if the mode does not allow it.
  StatsFile(const std::string& queueName, const Geometry& geometry, std::optional<gid_t> readers,
            std::optional<uid_t> user = {});
  ~StatsFile();
  StatsFile(const StatsFile&) = delete;
  StatsFile& operator=(const StatsFile&) = delete;

  // From now on another process removes the file.
  void leaveName() { removesName = false; }

  tool::QueueStats& stats() { return *mapped; }

 private:
  void allocate();
  void publish(const Geometry& geometry, std::optional<gid_t> readers, std::optional<uid_t> user);

  const std::string path;
  tool::Fd file;  // its lock shows that this process lives
  tool::QueueStats* mapped = nullptr;
  bool removesName = true;
};

}  // namespace orvaned
