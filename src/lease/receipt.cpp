#include "orvane/receipt.hpp"

#include <algorithm>
#include <iterator>

#include "lease/number.hpp"

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

std::optional<std::uint64_t> parseNumberField(std::string_view& text, std::string_view word) {
  return parseNumber(parseField(text, word).value_or(""));
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
  const auto records = parseNumberField(text, " records=");
  const auto bytes = parseNumberField(text, " bytes=");
  const auto segments = parseNumberField(text, " segments=");
  const auto end = parseEnd(text);
  if (!stream || !records || !bytes || !segments || !end || !text.empty()) {
    return std::nullopt;
  }
  return Receipt{std::string(*stream), *records, *bytes, *segments, *end};
}

}  // namespace orvane
