#include "units.hpp"

#include <algorithm>
#include <cstdio>

namespace tool {

std::string bytesText(double bytes) {
  constexpr const char* kUnits[] = {"B", "kB", "MB", "GB", "TB", "PB", "EB"};
  const char* const* unit = kUnits;
  while (bytes >= 999.5 && *unit != kUnits[6]) {
    bytes /= 1000;
    ++unit;
  }
  const int decimals = unit == kUnits || bytes >= 99.95 ? 0 : bytes >= 9.995 ? 1 : 2;
  char text[32];
  std::snprintf(text, sizeof text, "%.*f %s", decimals, bytes, *unit);
  return text;
}

std::string timeAndRate(std::uint64_t bytes, double seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.2f s, ", seconds);
  return text + bytesText(static_cast<double>(bytes) / std::max(seconds, 1e-9)) + "/s";
}

std::string counted(std::uint64_t count, const std::string& noun) {
  const char* ending = count == 1 ? "" : noun.ends_with("ch") ? "es" : "s";
  return std::to_string(count) + " " + noun + ending;
}

}  // namespace tool
