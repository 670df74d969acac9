#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "shm/fd.hpp"
#include "store_format/manifest_lines.hpp"
#include "store_format/stream_head.hpp"

namespace tool {

// A segment's file that no line of the manifest lists yet: the segment is open, or has ended and is
// on its way to the disk. The file may get another name, and a compressed one may take its place.
struct UnlistedSegment {
  std::uint64_t number = 0;
  std::string file;
  std::uint64_t fileBytes = 0;
};

// An open stream, as its files show it.
struct OpenStream {
  StreamHead head;  // with an empty queue until the first lines of the manifest are there
  std::vector<SegmentSummary> listed;
  std::vector<UnlistedSegment> unlisted;  // in order
};

// Looks into a stream's folder. Returns nothing if there is no manifest.part, which is there from
// shortly after the begin of a stream until its end.
std::optional<OpenStream> lookAtOpen(const Fd& folder);

}  // namespace tool
