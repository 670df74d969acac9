#pragma once

#include <cstdint>
#include <string>

namespace tool {

// "1.28 GB": three significant digits of a decimal unit.
std::string bytesText(double bytes);

// "0.21 s, 1.28 GB/s".
std::string timeAndRate(std::uint64_t bytes, double seconds);

// "1 file", "2 files", "3 batches".
std::string counted(std::uint64_t count, const std::string& noun);

}  // namespace tool
