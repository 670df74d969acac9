#include "command_line/number.hpp"

#include <charconv>
#include <string>
#include <system_error>

namespace tool {

CLI::Validator numberFrom(std::uint64_t least, std::uint64_t most) {
  const auto check = [least, most](std::string& text) -> std::string {
    std::uint64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || rest != end || number < least || number > most) {
      return "must be a number, " + std::to_string(least) + " to " + std::to_string(most);
    }
    text = std::to_string(number);
    return "";
  };
  return CLI::Validator(check, "");
}

}  // namespace tool
