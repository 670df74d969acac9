#pragma once

#include <charconv>
#include <cstdint>
#include <optional>
#include <string_view>
#include <system_error>

namespace orvane {

// Removes the number at the begin of `text` and returns it, or nothing if there is none or it is
// too large.
template <typename Number>
std::optional<Number> takeNumber(std::string_view& text) {
  Number number;
  const auto [end, error] = std::from_chars(text.begin(), text.end(), number);
  text = std::string_view(end, text.end());
  return error == std::errc() ? std::optional(number) : std::nullopt;
}

// Parses a number without a sign or other characters.
inline std::optional<std::uint64_t> parseNumber(std::string_view text) {
  const auto number = takeNumber<std::uint64_t>(text);
  return text.empty() ? number : std::nullopt;
}

}  // namespace orvane
