#pragma once

#include <optional>
#include <orvane/receipt.hpp>

#include "shm/fd.hpp"
#include "store_format/stream_head.hpp"

namespace tool {

// What the first and the last lines of a finished manifest tell. The lines between them, of which
// there may be any number, are not read, because a list of many streams must be fast.
struct ManifestSummary {
  StreamHead head;
  orvane::Receipt receipt;
  std::optional<UtcTime> ended;  // none in format 1
};

// Returns nothing if the manifest cannot be read, has a format that this release does not know, or
// is damaged. The checksum of its lines is compared only if the manifest is short (16 KiB).
std::optional<ManifestSummary> readSummary(const Fd& manifest);

}  // namespace tool
