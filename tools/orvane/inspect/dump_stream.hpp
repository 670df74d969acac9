#pragma once

#include <cstdint>
#include <string>

namespace tool {

// Prints the manifest of a stored stream, and compares it with every file that it lists. Returns
// the number of damaged files. Throws Failure if the folder holds no manifest.
std::uint64_t dumpStream(const std::string& folder, bool json);

}  // namespace tool
