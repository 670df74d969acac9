#include "support/manifest.hpp"

#include <cstdio>
#include <regex>
#include <string_view>

namespace orvane::test {
namespace {

constexpr std::string_view kTime =
    "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}Z";

// Removes what `pattern` finds, or puts `with` in its place; false if it is not there.
bool replace(std::string& text, const std::string& pattern, const std::string& with) {
  std::smatch found;
  if (!std::regex_search(text, found, std::regex(pattern))) {
    return false;
  }
  text.replace(static_cast<std::size_t>(found.position()), static_cast<std::size_t>(found.length()),
               with);
  return true;
}

// Reads the "%20" of a reason.
std::string readable(const std::string& line) {
  std::string text;
  for (std::size_t at = 0; at < line.size(); ++at) {
    const bool isEscaped = line[at] == '%';
    text +=
        isEscaped ? static_cast<char>(std::stoi(line.substr(at + 1, 2), nullptr, 16)) : line[at];
    at += isEscaped ? 2 : 0;
  }
  return text;
}

std::string withReadableReasons(const std::string& text) {
  std::string all;
  for (std::size_t begin = 0, end = 0; (end = text.find('\n', begin)) != std::string::npos;
       begin = end + 1) {
    const std::string line = text.substr(begin, end - begin);
    const std::size_t reason = line.find("reason=");
    all +=
        reason == std::string::npos ? line : line.substr(0, reason) + readable(line.substr(reason));
    all += "\n";
  }
  return all;
}

}  // namespace

std::uint32_t crc32Of(const std::string& bytes) {
  std::uint32_t crc = 0xFFFFFFFF;
  for (const char byte : bytes) {
    crc ^= static_cast<unsigned char>(byte);
    for (int bit = 0; bit < 8; ++bit) {
      crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0xEDB88320 : 0);
    }
  }
  return ~crc;
}

std::string withChecksum(const std::string& lines) {
  char last[16] = {};
  std::snprintf(last, sizeof last, "crc32=%08x\n", crc32Of(lines));
  return lines + last;
}

std::string plainManifest(const std::string& manifest) {
  if (!manifest.starts_with("format=2\n")) {
    return manifest;
  }
  const std::size_t last = manifest.rfind("\ncrc32=") + 1;
  std::string text = manifest.substr(0, last);
  if (last == 0 || withChecksum(text) != manifest) {
    return "wrong checksum: " + manifest;
  }
  replace(text, "\nbegun=" + std::string(kTime) + "\n", "\nbegun=TIME\n");
  if (!replace(text, "ended=" + std::string(kTime) + "\n(?=reason=[^\n]*\n$)", "")) {
    return "no end: " + manifest;
  }
  return withReadableReasons(text);
}

}  // namespace orvane::test
