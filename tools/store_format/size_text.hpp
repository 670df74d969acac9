#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace tool {

// The error message for a text that is not a size.
constexpr char kNoSize[] = "must be a number of bytes, such as 512KiB";

// Returns the number of bytes in a text such as "512KiB", "512 kb", "512k" or "524288"; every unit
// is a power of 1024. Returns nothing for another text, or if 64 bits cannot hold the number.
std::optional<std::uint64_t> bytesIn(const std::string& text);

}  // namespace tool
