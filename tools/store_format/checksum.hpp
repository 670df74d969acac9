#pragma once

#include <cstdint>
#include <span>

namespace tool {

// Returns the CRC-32 (as in gzip) of these bytes, continued from that of the bytes before them.
std::uint32_t checksumOf(std::span<const unsigned char> bytes, std::uint32_t before = 0);

}  // namespace tool
