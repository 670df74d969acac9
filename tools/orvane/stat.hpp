#pragma once

#include <string>

namespace tool {

struct StatOptions {
  double interval = 1;  // seconds between the two looks that the rates come from; 0: no rates
  bool json = false;
};

// Prints the totals that a queue's server publishes. Throws Failure.
void printStat(const std::string& queue, const StatOptions& options);

}  // namespace tool
