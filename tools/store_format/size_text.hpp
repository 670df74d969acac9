#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace tool {

// What is said of any other text.
constexpr char kNoSize[] = "must be a number of bytes, such as 512KiB";

// The bytes that a text such as "512KiB", "512 kb", "512k" or "524288" means; every unit is a power
// of 1024. Nothing when it means none, or more than 64 bits hold.
std::optional<std::uint64_t> bytesIn(const std::string& text);

}  // namespace tool
