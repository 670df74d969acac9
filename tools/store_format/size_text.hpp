#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace tool {

// The error message for a text that is not a size.
constexpr char kNoSize[] = "must be a number of bytes, such as 512KiB";

// Returns the number of bytes in a text such as "512KiB", "512k", "524288" (all the same) or "512
// kB": K and KiB are 1024 bytes, kB is 1000 bytes, and so on, in upper or lower case. Returns
// nothing for another text, or if 64 bits cannot hold the number.
std::optional<std::uint64_t> bytesIn(const std::string& text);

}  // namespace tool
