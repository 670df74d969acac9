#pragma once

#include <cstdint>
#include <string>

namespace tool {

// Prints the manifest of a stored stream, and compares it with every file that it lists and, from
// format 2 on, with its own checksum. Then prints the stream's other records. Returns the number of
// damaged files. Throws Failure if the folder holds no manifest, and std::runtime_error if the
// manifest cannot be read or has a format that this release does not know.
std::uint64_t dumpStream(const std::string& folder, bool json);

}  // namespace tool
