#include "subjects.hpp"

#include <charconv>
#include <vector>

#include "store_format/manifest_lines.hpp"

namespace forward {
namespace {

constexpr std::string_view kVersion = "1";
constexpr std::string_view kFirst = "orvane";
constexpr std::string_view kPlain =
    "abcdefghijklmnopqrstuvwxyz"
    "ABCDEFGHIJKLMNOPQRSTUVWXYZ"
    "0123456789_-";
constexpr std::string_view kHex = "0123456789ABCDEF";
constexpr std::string_view kEmpty = "%";

bool isPlain(char c) {
  return kPlain.find(c) != std::string_view::npos;
}

std::vector<std::string_view> partsOf(std::string_view text, char separator) {
  std::vector<std::string_view> parts;
  for (std::size_t end = text.find(separator); end != std::string_view::npos;
       end = text.find(separator)) {
    parts.push_back(text.substr(0, end));
    text.remove_prefix(end + 1);
  }
  parts.push_back(text);
  return parts;
}

// Digits without a zero in front, as std::to_string() writes them.
std::optional<std::uint64_t> numberIn(std::string_view text) {
  std::uint64_t number = 0;
  const auto [rest, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && std::to_string(number) == text ? std::optional(number)
                                                                : std::nullopt;
}

std::optional<StreamName> streamIn(const std::vector<std::string_view>& tokens) {
  const auto host = textIn(tokens[2]);
  const auto queue = textIn(tokens[3]);
  const auto stream = textIn(tokens[4]);
  if (tokens[0] != kFirst || tokens[1] != kVersion || !host || !queue || !stream) {
    return std::nullopt;
  }
  return StreamName{*host, *queue, *stream};
}

}  // namespace

std::string tokenOf(std::string_view text) {
  std::string token(text.empty() ? kEmpty : "");
  for (const char c : text) {
    if (isPlain(c)) {
      token += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      token += {'%', kHex[byte >> 4], kHex[byte & 15]};
    }
  }
  return token;
}

std::optional<std::string> textIn(std::string_view token) {
  std::string text;
  for (std::size_t at = 0; at < token.size() && token != kEmpty; ++at) {
    if (isPlain(token[at])) {
      text += token[at];
      continue;
    }
    const std::size_t high = at + 2 < token.size() ? kHex.find(token[at + 1]) : kHex.npos;
    const std::size_t low = at + 2 < token.size() ? kHex.find(token[at + 2]) : kHex.npos;
    if (token[at] != '%' || high == kHex.npos || low == kHex.npos) {
      return std::nullopt;
    }
    text += static_cast<char>(high * 16 + low);
    at += 2;
  }
  return tokenOf(text) == token ? std::optional(text) : std::nullopt;
}

std::string subjectOf(const StreamName& name) {
  return std::string(kFirst) + "." + std::string(kVersion) + "." + tokenOf(name.host) + "." +
         tokenOf(name.queue) + "." + tokenOf(name.stream);
}

std::string chunkSubject(const StreamName& name, const std::string& file, std::uint64_t offset,
                         std::uint64_t length) {
  return subjectOf(name) + "." + tokenOf(file) + "." + std::to_string(offset) + "-" +
         std::to_string(length);
}

std::string manifestSubject(const StreamName& name) {
  return subjectOf(name) + "." + tool::kManifest;
}

std::optional<ChunkName> parseSubject(std::string_view subject) {
  const auto tokens = partsOf(subject, '.');
  if (tokens.size() != 6 && tokens.size() != 7) {
    return std::nullopt;
  }
  const auto stream = streamIn(tokens);
  const auto file = textIn(tokens[5]);
  if (!stream || !file) {
    return std::nullopt;
  }
  if (tokens.size() == 6) {
    return *file == tool::kManifest ? std::optional(ChunkName{*stream, *file, 0, 0, true})
                                    : std::nullopt;
  }
  const auto range = partsOf(tokens[6], '-');
  const auto offset = numberIn(range.front());
  const auto length = numberIn(range.back());
  if (range.size() != 2 || !offset || !length) {
    return std::nullopt;
  }
  return ChunkName{*stream, *file, *offset, *length, false};
}

std::optional<StreamName> parseStreamName(const std::string& text) {
  const auto parts = partsOf(text, '/');
  if (parts.size() != 3 || parts[0].empty() || parts[2].empty()) {
    return std::nullopt;
  }
  return StreamName{std::string(parts[0]), std::string(parts[1]), std::string(parts[2])};
}

std::string textOf(const StreamName& name) {
  return name.host + "/" + name.queue + "/" + name.stream;
}

}  // namespace forward
