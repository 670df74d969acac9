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
  StreamHead head = {};    // what the first lines tell, and otherwise what was known without them
  ManifestPart part = {};  // the first lines and the segments' lines; no bytes: the first are lost
  std::vector<SegmentSummary> segments = {};
  OtherRecords others = {};
  std::optional<orvane::Receipt> receipt = {};  // if the manifest misses only its final name
  ManifestPart whole = {};                      // all of it, if there is a receipt
};

// `known` is the head that the manifest gets if its own is lost. Throws std::runtime_error if the
// manifest has a format that this release does not know.
ManifestContent readListed(tool::ManifestReader& manifest, const StreamHead& known);

}  // namespace orvaned
