#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "shm/utc.hpp"

namespace tool {

// A stream that was forwarded to a cluster is marked by an empty file STORE/.forwarded/ID. A mark
// only saves work: a stream without one is offered again, and the cluster refuses what it has.
constexpr char kMarks[] = ".forwarded";
std::string marksOf(const std::string& store);
std::string markOf(const std::string& store, const std::string& id);

// Returns when a stream was marked, or nothing if it is not.
std::optional<UtcTime> markedAt(const std::string& store, const std::string& id);

// An acknowledged message may be in the memory of the servers only, until their next sync, which is
// every minute. A stream is safe there when twice that time has passed.
constexpr std::chrono::seconds kSafeAfter(120);
bool isSafelyForwarded(const std::string& store, const std::string& id, UtcTime now);

}  // namespace tool
