#pragma once

#include <cstdint>
#include <span>

namespace tool {

// The CRC-32 of gzip, continued from that of the bytes before.
std::uint32_t checksumOf(std::span<const unsigned char> bytes, std::uint32_t before = 0);

}  // namespace tool
