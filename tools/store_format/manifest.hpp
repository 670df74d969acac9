#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "store_format/manifest_lines.hpp"
#include "store_format/stream_head.hpp"

namespace tool {

// Everything that the manifest of a stream states (manifest_lines.hpp). A stream with more segments
// than fit in memory is read with ManifestReader instead.
struct Manifest {
  StreamHead head;
  std::vector<SegmentSummary> segments;
  std::vector<UnfinishedFile> unfinished;
  std::vector<DamagedFile> damaged;
  std::optional<OtherRecords> others;    // none: the stream's server died
  std::optional<std::uint64_t> skipped;  // none: the same
  StreamEnding ending;

  bool operator==(const Manifest&) const = default;
};

// All lines of a manifest without the checksum.
std::vector<std::string> linesOf(const Manifest& manifest);

// Reads a finished manifest. Throws std::runtime_error if it cannot be read, is not exactly what a
// server writes, or has a format that this release does not know.
Manifest readManifest(const std::string& path);

// The same, but if the manifest is not exactly what a server writes, this returns nothing, and
// `fault` becomes the reason.
std::optional<Manifest> readManifest(const std::string& path, std::string& fault);

}  // namespace tool
