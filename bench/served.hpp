#pragma once

#include <sys/types.h>

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace bench {

// A real orvaned that leases queues and rings; stopped at the end.
class Served {
 public:
  // Waits until it serves.
  Served(const std::string& program, const std::string& store,
         const std::vector<std::string>& options = {});
  ~Served();
  Served(const Served&) = delete;
  Served& operator=(const Served&) = delete;

  const std::string& socket() const { return path; }

  // The processor time that it and its workers have used so far, in seconds; of a worker that has
  // ended, what it had used when this was last called.
  double cpuSeconds();

  // The memory that they have now, in bytes; see memoryOf().
  std::optional<std::size_t> memory() const;

 private:
  std::vector<pid_t> processes() const;

  std::string path;
  pid_t pid;
  std::map<pid_t, double> used;  // seconds
};

// The proportional set size of a process, in bytes: each page that it shares counts by its share.
// Nothing if this process may not know: only root may look into confined workers.
std::optional<std::size_t> memoryOf(pid_t pid);

}  // namespace bench
