#pragma once

#include <cstdint>
#include <optional>
#include <orvane/orvane.hpp>
#include <string>
#include <vector>

#include "store/manifest_file.hpp"
#include "store_format/manifest_reader.hpp"

namespace orvaned {

// The valid lines of a manifest, up to the first one that is incomplete or invalid.
struct ManifestContent {
  std::uint64_t bytes = 0;  // of the first lines and the segments' lines; 0: no segment's line
  std::vector<SegmentSummary> segments;
  OtherRecords others;
  std::optional<orvane::Receipt> receipt;  // if the manifest misses only its final name
  std::uint64_t allBytes = 0;              // if there is a receipt
};

ManifestContent readListed(tool::ManifestReader& manifest, const std::string& queue,
                           const std::string& stream);

}  // namespace orvaned
