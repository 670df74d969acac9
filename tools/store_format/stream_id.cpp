#include "store_format/stream_id.hpp"

#include <algorithm>
#include <filesystem>
#include <string_view>

namespace tool {
namespace {

// Written out, because std::isalnum depends on the locale.
constexpr std::string_view kDigits = "0123456789";
constexpr std::string_view kAllowed =
    "abcdefghijklmnopqrstuvwxyz"
    "ABCDEFGHIJKLMNOPQRSTUVWXYZ"
    "0123456789_.-";

std::string limited(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](char c) { return kAllowed.find(c) == std::string_view::npos; },
      '_');
  return text;
}

// Removes the digits at the end of `text`; returns how many there were.
std::size_t takeDigits(std::string_view& text) {
  const std::size_t before = text.size();
  text = text.substr(0, text.find_last_not_of(kDigits) + 1);
  return before - text.size();
}

bool takeCharacter(std::string_view& text, char c) {
  const bool isThere = text.ends_with(c);
  text.remove_suffix(isThere ? 1 : 0);
  return isThere;
}

// Removes "-20261121T023224-4711_0" from the end of `text`; false if something else is there.
bool takeStream(std::string_view& text) {
  return takeDigits(text) > 0 && takeCharacter(text, '_') && takeDigits(text) > 0 &&
         takeCharacter(text, '-') && takeDigits(text) == 6 && takeCharacter(text, 'T') &&
         takeDigits(text) == 8 && takeCharacter(text, '-');
}

}  // namespace

std::string streamId(const std::string& name, const std::string& label, const std::string& stream) {
  const std::string last = "-" + stream;
  const std::size_t room = kLongestStreamId - std::min(last.size(), kLongestStreamId);
  std::string id = name.substr(0, room);
  if (!label.empty() && id.size() + 1 < room) {
    id += "-" + limited(label.substr(0, std::min(kLongestLabelInId, room - id.size() - 1)));
  }
  return id + last;
}

std::optional<StreamIdParts> parseStreamId(const std::string& id) {
  std::string_view before = id;
  if (!takeStream(before) || before.empty()) {
    return std::nullopt;
  }
  return StreamIdParts{std::string(before), id.substr(before.size() + 1)};
}

// The id may have a part of the label, or nothing of it.
std::string nameInId(const std::string& id, const std::string& label) {
  const auto parts = parseStreamId(id);
  std::string name = parts ? parts->nameAndLabel : "";
  for (std::size_t size = std::min(kLongestLabelInId, label.size()); size > 0; --size) {
    const std::string end = "-" + limited(label.substr(0, size));
    if (name.size() > end.size() && name.ends_with(end)) {
      return name.substr(0, name.size() - end.size());
    }
  }
  return name;
}

std::string nameOfSocket(const std::string& path) {
  const std::filesystem::path file = std::filesystem::absolute(path);
  const std::string folder = file.parent_path().filename();
  std::string name = limited(
      file.filename() == "socket" && !folder.empty() ? folder : std::string(file.filename()));
  if (name.starts_with('.')) {
    name.front() = '_';  // a folder that is hidden is not found
  }
  return name;
}

}  // namespace tool
