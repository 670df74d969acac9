#include "orvane/receipt.hpp"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <system_error>

namespace orvane {
namespace {

constexpr std::string_view kEnds[] = {"closed", "stopped", "cut-off", "broken"};  // as StreamEnd

// Removes `word` and the value up to the next blank from the begin of `text`; returns the value.
std::optional<std::string_view> parseField(std::string_view& text, std::string_view word) {
  if (text.substr(0, word.size()) != word) {
    return std::nullopt;
  }
  text.remove_prefix(word.size());
  const std::string_view value = text.substr(0, text.find(' '));
  text.remove_prefix(value.size());
  if (value.empty()) {
    return std::nullopt;
  }
  return value;
}

std::optional<std::uint64_t> parseNumber(std::string_view& text, std::string_view word) {
  const auto value = parseField(text, word);
  if (!value) {
    return std::nullopt;
  }
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(value->data(), value->data() + value->size(), number);
  if (error != std::errc() || end != value->data() + value->size()) {
    return std::nullopt;
  }
  return number;
}

std::optional<StreamEnd> parseEnd(std::string_view& text) {
  const auto word = parseField(text, " end=");
  const auto* const found = std::find(std::begin(kEnds), std::end(kEnds), word.value_or(""));
  return found != std::end(kEnds) ? std::optional(static_cast<StreamEnd>(found - kEnds))
                                  : std::nullopt;
}

}  // namespace

std::string textOf(StreamEnd end) {
  return std::string(kEnds[static_cast<int>(end)]);
}

std::string textOf(const Receipt& receipt) {
  return "receipt stream=" + receipt.stream + " records=" + std::to_string(receipt.records) +
         " bytes=" + std::to_string(receipt.bytes) +
         " segments=" + std::to_string(receipt.segments) + " end=" + textOf(receipt.end);
}

std::optional<Receipt> parseReceipt(std::string_view text) {
  const auto stream = parseField(text, "receipt stream=");
  const auto records = parseNumber(text, " records=");
  const auto bytes = parseNumber(text, " bytes=");
  const auto segments = parseNumber(text, " segments=");
  const auto end = parseEnd(text);
  if (!stream || !records || !bytes || !segments || !end || !text.empty()) {
    return std::nullopt;
  }
  return Receipt{std::string(*stream), *records, *bytes, *segments, *end};
}

}  // namespace orvane
