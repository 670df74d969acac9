#include "store_format/size_text.hpp"

#include <algorithm>
#include <charconv>
#include <string_view>

namespace tool {
namespace {

constexpr std::string_view kUnits = "kmgtpe";

// Returns the number of bytes that a unit stands for, in upper or lower case: 1000 for kB, 1024 for
// K and KiB, and so on, and 1 for B or no unit.
std::optional<std::uint64_t> bytesOf(std::string unit) {
  std::transform(unit.begin(), unit.end(), unit.begin(), [](char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  });
  if (unit.empty() || unit == "b") {
    return 1;
  }
  const std::size_t power = kUnits.find(unit.front());
  const std::string rest = unit.substr(1);
  if (power == std::string_view::npos || (!rest.empty() && rest != "b" && rest != "ib")) {
    return std::nullopt;
  }
  std::uint64_t bytes = 1;
  for (std::size_t i = 0; i <= power; ++i) {
    bytes *= rest == "b" ? 1000 : 1024;
  }
  return bytes;
}

}  // namespace

std::optional<std::uint64_t> bytesIn(const std::string& text) {
  std::uint64_t number = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  const char* const unit = std::find_if(rest, end, [](char c) { return c != ' '; });
  const auto unitBytes = bytesOf(std::string(unit, end));
  if (error != std::errc() || !unitBytes || number > UINT64_MAX / *unitBytes) {
    return std::nullopt;
  }
  return number * *unitBytes;
}

}  // namespace tool
