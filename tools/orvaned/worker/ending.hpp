#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace orvaned {

// Why a worker ends.
struct Ending {
  std::string reason;    // for the manifest of a stream that is open then
  std::string farewell;  // for whoever still uses the queue
};

// Waits so long, or until the worker is to end; then it says why.
using EndWithin = std::function<const Ending*(std::chrono::microseconds)>;

}  // namespace orvaned
