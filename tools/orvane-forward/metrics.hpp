#pragma once

#include <atomic>
#include <cstdint>
#include <string>

namespace forward {

// What the forwarder counts. Its threads add to it.
struct Metrics {
  std::atomic<std::uint64_t> streams = 0;     // forwarded
  std::atomic<std::uint64_t> chunks = 0;      // stored by the cluster
  std::atomic<std::uint64_t> bytes = 0;       // of their data
  std::atomic<std::uint64_t> known = 0;       // chunks that were there already
  std::atomic<std::uint64_t> repeats = 0;     // chunks that were sent again
  std::atomic<std::uint64_t> fullPauses = 0;  // pauses because the cluster was full
  std::atomic<std::uint64_t> damaged = 0;  // files that differ from their manifest, or are missing
  std::atomic<std::uint64_t> differing = 0;   // chunks of which the cluster has another content
  std::atomic<std::uint64_t> failures = 0;    // attempts that ended before the stream was forwarded
  std::atomic<std::uint64_t> waiting = 0;     // streams that have ended and are not forwarded
  std::atomic<std::uint64_t> unreadable = 0;  // of these, those whose manifest is damaged
  std::atomic<bool> connected = false;
  std::atomic<std::int64_t> lastStored = 0;  // seconds since 1970; 0: nothing yet
};

// All of them in Prometheus' text format, version 0.0.4.
std::string textOf(const Metrics& metrics);

// Writes a file beside `path` and renames it, so that a reader sees the old text or the new one.
// Returns why that failed, or "".
std::string writeMetrics(const Metrics& metrics, const std::string& path);

}  // namespace forward
