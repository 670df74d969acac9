#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace bench {

// A real orvaned that leases queues; stopped at the end.
class Served {
 public:
  // Waits until it serves.
  Served(const std::string& program, const std::string& store);
  ~Served();
  Served(const Served&) = delete;
  Served& operator=(const Served&) = delete;

  const std::string& socket() const { return path; }

  // The processor time that it and its workers have used so far, in seconds.
  double cpuSeconds() const;

 private:
  std::string path;
  pid_t pid;
};

}  // namespace bench
