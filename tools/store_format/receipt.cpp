#include "store_format/receipt.hpp"

#include <charconv>

namespace tool {
namespace {

// Takes `word`, and what follows it up to the next blank, off the front of `text`.
std::optional<std::string_view> takeField(std::string_view& text, std::string_view word) {
  if (!text.starts_with(word)) {
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

std::optional<std::uint64_t> takeNumber(std::string_view& text, std::string_view word) {
  const auto value = takeField(text, word);
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

}  // namespace

std::string textOf(const Receipt& receipt) {
  return "receipt stream=" + receipt.stream + " records=" + std::to_string(receipt.records) +
         " bytes=" + std::to_string(receipt.bytes) +
         " segments=" + std::to_string(receipt.segments) + " end=" + receipt.end;
}

std::optional<Receipt> parseReceipt(std::string_view text) {
  const auto stream = takeField(text, "receipt stream=");
  const auto records = takeNumber(text, " records=");
  const auto bytes = takeNumber(text, " bytes=");
  const auto segments = takeNumber(text, " segments=");
  const auto end = takeField(text, " end=");
  if (!stream || !records || !bytes || !segments || !end || !text.empty()) {
    return std::nullopt;
  }
  return Receipt{std::string(*stream), *records, *bytes, *segments, std::string(*end)};
}

}  // namespace tool
