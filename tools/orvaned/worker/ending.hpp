#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace orvaned {

// Why a worker ends.
struct Ending {
  std::string reason;  // for the manifest of a stream that is still open
  std::string notice;  // the text for a producer that still uses the queue
};

// Waits for the given time. Returns why the worker is to end, as soon as it is; null otherwise.
using EndWithin = std::function<const Ending*(std::chrono::microseconds)>;

}  // namespace orvaned
