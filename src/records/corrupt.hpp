#pragma once

#include <cstdint>

namespace orvane {

// The two ways in which bytes are not what they should be, told alike by every reader
// (kStatusCorruptMagic).
[[noreturn]] void failCorruptHeader(std::uint32_t magic);
[[noreturn]] void failCorruptMetaData(std::uint32_t magic);

}  // namespace orvane
