#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "shm/utc.hpp"
#include "store_format/manifest_summary.hpp"

namespace tool {

// A stream of a store. If its manifest is damaged, only the facts in its id are known.
struct StoredStream {
  std::string id;      // the name of its folder
  std::string folder;  // its path; "" in a cluster
  std::string host;    // in a cluster, the machine that it comes from; "": it is in a store
  std::string
      queue;  // the first part of the id: the fixed queue, or the socket's name; "": unknown
  std::string label;                 // "": none
  std::optional<std::uint32_t> uid;  // the producer's; none for a fixed queue
  std::optional<std::int32_t> pid;   // the same; none also if the server did not see the process
  std::optional<UtcTime> begun;
  std::optional<UtcTime> ended;
  std::optional<double> seconds;         // from begin to end, or until now while it is open
  std::optional<std::uint64_t> records;  // not known while the stream is open
  // Of the data. While the stream is open, in segments only, and not known if the open segment's
  // file is compressed and large.
  std::optional<std::uint64_t> bytes;
  std::optional<std::uint64_t> segments;
  std::string end;  // "closed", "stopped", "cut-off", "broken", kOpen; "": unknown
};

// The end of a stream that has not ended: a server is storing it, or died.
constexpr char kOpen[] = "open";

// Returns all streams of a store, the newest last. Throws Failure if the store cannot be read.
std::vector<StoredStream> streamsIn(const std::string& store);

// Returns what an id tells, and what the manifest of a stream that has ended tells, too; nothing if
// it is damaged.
StoredStream streamOf(const std::string& id, const std::optional<ManifestSummary>& summary);

// Sorts streams, so that the newest is the last.
void sortByBegin(std::vector<StoredStream>& streams);

}  // namespace tool
