#include "store_format/stream_head.hpp"

#include <charconv>
#include <orvane/escaped_text.hpp>
#include <string_view>

namespace tool {
namespace {

constexpr std::string_view kFormat = "format=";
constexpr std::string_view kQueue = "queue=";
constexpr std::string_view kStream = "stream=";
constexpr std::string_view kProducer = "producer=";
constexpr std::string_view kLabel = "label=";
constexpr std::string_view kBegun = "begun=";

std::string with(std::string_view name, const std::string& value) {
  return std::string(name) + value;
}

// Returns what follows `name`, or nothing if the line begins otherwise.
std::optional<std::string> valueOf(std::string_view name, const std::string& line) {
  return line.starts_with(name) ? std::optional(line.substr(name.size())) : std::nullopt;
}

std::string textOf(const Producer& producer) {
  return "uid=" + std::to_string(producer.user) + " gid=" + std::to_string(producer.group) +
         " pid=" + std::to_string(producer.process) +
         (producer.executable.empty() ? "" : " executable=" + orvane::escaped(producer.executable));
}

// Removes `name` and the number after it from the begin of `text`. A value that is no number is
// noticed because its text is not what is written for what was read.
template <typename Number>
void takeNumber(std::string_view name, std::string_view& text, Number& number) {
  if (text.starts_with(name)) {
    text.remove_prefix(name.size());
    text.remove_prefix(static_cast<std::size_t>(
        std::from_chars(text.begin(), text.end(), number).ptr - text.begin()));
  }
}

std::optional<Producer> parseProducer(const std::string& line) {
  constexpr std::string_view kExecutable = " executable=";
  Producer producer;
  std::string_view rest = line;
  takeNumber("uid=", rest, producer.user);
  takeNumber(" gid=", rest, producer.group);
  takeNumber(" pid=", rest, producer.process);
  if (rest.starts_with(kExecutable)) {
    producer.executable = orvane::unescaped(rest.substr(kExecutable.size())).value_or("");
  }
  return textOf(producer) == line ? std::optional(producer) : std::nullopt;
}

}  // namespace

std::vector<std::string> linesOf(const StreamHead& head) {
  std::vector<std::string> lines = {with(kFormat, std::to_string(head.format)),
                                    with(kQueue, head.queue), with(kStream, head.stream)};
  if (head.format == kFirstFormat) {
    return lines;
  }
  if (head.producer) {
    lines.push_back(with(kProducer, textOf(*head.producer)));
  }
  if (!head.label.empty()) {
    lines.push_back(with(kLabel, orvane::escaped(head.label)));
  }
  if (head.begun) {
    lines.push_back(with(kBegun, utcText(*head.begun)));
  }
  return lines;
}

bool StreamHeadParser::take(const std::string& line) {
  const bool isTaken = lines < kNeeded ? takeNeeded(line) : takeFact(line);
  lines += isTaken ? 1 : 0;
  return isTaken;
}

bool StreamHeadParser::takeNeeded(const std::string& line) {
  if (lines == 0) {
    read.format =
        line == with(kFormat, std::to_string(kFirstFormat)) ? kFirstFormat : kManifestFormat;
    return line == with(kFormat, std::to_string(read.format));
  }
  const auto value = valueOf(lines == 1 ? kQueue : kStream, line);
  (lines == 1 ? read.queue : read.stream) = value.value_or("");
  return value.has_value();
}

// Looks for the last line first: once a line is there, none that comes before it is taken.
bool StreamHeadParser::takeFact(const std::string& line) {
  if (read.format == kFirstFormat || read.begun) {
    return false;
  }
  if (const auto begun = valueOf(kBegun, line)) {
    read.begun = parseUtc(*begun);
    return read.begun.has_value();
  }
  if (!read.label.empty()) {
    return false;
  }
  if (const auto label = valueOf(kLabel, line)) {
    read.label = orvane::unescaped(*label).value_or("");
    return !read.label.empty();
  }
  const auto producer = read.producer ? std::nullopt : valueOf(kProducer, line);
  if (producer) {
    read.producer = parseProducer(*producer);
  }
  return producer && read.producer;
}

bool StreamHeadParser::isComplete() const {
  return isValid() && (read.format == kFirstFormat || read.begun);
}

}  // namespace tool
