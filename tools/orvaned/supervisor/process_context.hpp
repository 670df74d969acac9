#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "options.hpp"
#include "shm/fd.hpp"
#include "supervisor/child.hpp"

namespace orvaned {

// A worker's broker, and this end of the socket to it. With it another process can finish the
// stream that the worker left open.
struct BrokerProcess {
  std::unique_ptr<Child> process;
  tool::Fd socket = tool::Fd();
};

// May a new process write to the log? A confined one may not.
enum class LogAccess { kept, left };

// The supervisor passes this to each object that starts processes for it.
struct ProcessContext {
  const Options& options;
  pid_t supervisor;
  // In a new process: closes all files except these, the server's locks, and those of the log.
  std::function<void(std::vector<int> files, LogAccess log)> keepOnly;
  // Hands over the broker of a worker that has ended; `died`: the worker left a stream unfinished.
  std::function<void(const std::string& queue, BrokerProcess broker, bool died)> conclude;
};

}  // namespace orvaned
