#pragma once

#include <string>

#include "store/stream_directory.hpp"

namespace orvaned {

// Brings the data of an ended segment onto the disk, then its line in the manifest, and then gives
// its file the final name, so that only a segment that is on the disk is listed, and every file
// with a final name can be checked. Ends with the first step that fails. The manifest must exist.
FinishResult finishSegment(StreamDirectory& folder, const std::string& finalName,
                           const std::string& line);

}  // namespace orvaned
