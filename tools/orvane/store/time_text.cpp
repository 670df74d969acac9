#include "store/time_text.hpp"

#include <charconv>
#include <cstdint>

namespace tool {
namespace {

std::optional<std::chrono::seconds> unitNamed(const char* text, const char* end) {
  if (end - text != 1) {
    return std::nullopt;
  }
  switch (*text) {
    case 's':
      return std::chrono::seconds(1);
    case 'm':
      return std::chrono::minutes(1);
    case 'h':
      return std::chrono::hours(1);
    case 'd':
      return std::chrono::days(1);
    default:
      return std::nullopt;
  }
}

// Adds what is missing, from the hours on, at 0.
std::optional<UtcTime> dateIn(std::string text) {
  const std::string midnight = "2026-11-21T00:00:00.000Z";
  if (text.ends_with('Z')) {
    text.pop_back();
  }
  for (const char* const form :
       {"2026-11-21", "2026-11-21T02:32", "2026-11-21T02:32:24", "2026-11-21T02:32:24.123"}) {
    if (text.size() == std::char_traits<char>::length(form)) {
      return parseUtc(text + midnight.substr(text.size()));
    }
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::chrono::seconds> durationIn(const std::string& text) {
  std::uint32_t number = 0;  // no number of days overflows
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  const auto unit = unitNamed(rest, end);
  return error == std::errc() && unit ? std::optional(*unit * std::int64_t{number}) : std::nullopt;
}

std::optional<UtcTime> timeIn(const std::string& text, UtcTime now) {
  const auto today = std::chrono::floor<std::chrono::days>(now);
  if (text == "today") {
    return today;
  }
  if (text == "yesterday") {
    return today - std::chrono::days(1);
  }
  const auto ago = durationIn(text);
  return ago ? std::optional<UtcTime>(now - *ago) : dateIn(text);
}

}  // namespace tool
