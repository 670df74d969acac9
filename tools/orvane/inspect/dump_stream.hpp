#pragma once

#include <cstdint>
#include <string>

namespace tool {

// Prints the manifest of a stored stream and compares every file that it lists with what is there.
// Returns how many of them are damaged. Throws Failure when the folder holds no manifest.
std::uint64_t dumpStream(const std::string& folder, bool json);

}  // namespace tool
