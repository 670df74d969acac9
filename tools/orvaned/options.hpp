#pragma once

#include <optional>
#include <orvane/orvane.hpp>
#include <string>

#include "confinement_settings.hpp"
#include "geometry.hpp"
#include "shm/queue_rules.hpp"
#include "sync.hpp"

namespace orvaned {

struct Options {
  std::string queue;   // empty: no fixed name
  std::string socket;  // empty: no leases
  std::string store;
  // Eight messages of eight of the largest records, 8 MiB in all. With smaller messages, the writer
  // and the worker wake each other more often. Larger ones do not fit into the processor's caches.
  // With fewer messages, a producer that flushes each record waits more often.
  Geometry geometry{8, tool::messageSizeFor(8), 0600};
  Sync sync = Sync::segment;
  int compressionLevel = 0;  // of zstd; 0: nothing is compressed
  std::size_t pairsPerUser = 16;
  std::size_t shmLimit = 0;          // bytes of /dev/shm for all leases; 0: half of what it has
  std::size_t ringLimit = 0;         // bytes of memory for all rings; 0: a quarter of what there is
  std::size_t ringLimitPerUser = 0;  // for one user's rings; 0: half of the limit for all
  std::uint32_t idleLimit = 0;       // seconds; 0: none
  ox::Kind logLevel = ox::Kind::info;
  bool trace = false;
  std::string capture;      // empty: none
  std::string workerUser;   // empty: orvaned
  Confinement confinement;  // its user is chosen by chooseWorkerUser()
};

constexpr int kUsageError = 2;

// Reads the command line, and checks the options. Returns an exit code if the program is to end at
// once: after --help and --version (on standard output), or after an error (one line on standard
// error).
std::optional<int> parseOptions(int argc, const char* const* argv, Options& options);

// Throws std::invalid_argument if no queue pair can be created with the options.
void checkOptions(const Options& options);

}  // namespace orvaned
