#include "store_format/size_text.hpp"

#include <algorithm>
#include <charconv>
#include <string_view>

namespace tool {
namespace {

constexpr std::string_view kUnits = "kmgtpe";

// Returns the exponent of two for a unit: 10 for K, KB and KiB in upper or lower case, and so on,
// and 0 for B or no unit.
std::optional<unsigned int> shiftOf(std::string unit) {
  std::transform(unit.begin(), unit.end(), unit.begin(), [](char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  });
  if (unit.empty() || unit == "b") {
    return 0;
  }
  const std::size_t power = kUnits.find(unit.front());
  const std::string rest = unit.substr(1);
  if (power == std::string_view::npos || (!rest.empty() && rest != "b" && rest != "ib")) {
    return std::nullopt;
  }
  return 10 * static_cast<unsigned int>(power + 1);
}

}  // namespace

std::optional<std::uint64_t> bytesIn(const std::string& text) {
  std::uint64_t number = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  const char* const unit = std::find_if(rest, end, [](char c) { return c != ' '; });
  const auto shift = shiftOf(std::string(unit, end));
  if (error != std::errc() || !shift || number > UINT64_MAX >> *shift) {
    return std::nullopt;
  }
  return number << *shift;
}

}  // namespace tool
