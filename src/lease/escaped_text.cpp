#include "orvane/escaped_text.hpp"

#include "lease/control_character.hpp"

namespace orvane {
namespace {

constexpr std::string_view kDigits = "0123456789ABCDEF";

bool isEscaped(char c) {
  return c == ' ' || c == '%' || isControlCharacter(c);
}

// Returns the character in "%20", or nothing for another text.
std::optional<char> characterIn(std::string_view text) {
  const std::size_t high = text.size() == 3 ? kDigits.find(text[1]) : std::string_view::npos;
  const std::size_t low = text.size() == 3 ? kDigits.find(text[2]) : std::string_view::npos;
  if (high == std::string_view::npos || low == std::string_view::npos) {
    return std::nullopt;
  }
  const char c = static_cast<char>(high * 16 + low);
  return isEscaped(c) ? std::optional(c) : std::nullopt;
}

}  // namespace

std::string escaped(std::string_view text) {
  std::string word;
  for (const char c : text) {
    if (isEscaped(c)) {
      const auto byte = static_cast<unsigned char>(c);
      word += {'%', kDigits[byte / 16], kDigits[byte % 16]};
    } else {
      word += c;
    }
  }
  return word;
}

std::optional<std::string> unescaped(std::string_view word) {
  std::string text;
  while (!word.empty()) {
    const bool isOne = word.front() == '%';
    const auto c = isOne ? characterIn(word.substr(0, 3)) : std::optional(word.front());
    if (!c || (!isOne && isEscaped(*c))) {
      return std::nullopt;
    }
    text += *c;
    word.remove_prefix(isOne ? 3 : 1);
  }
  return text;
}

}  // namespace orvane
