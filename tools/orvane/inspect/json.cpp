#include "inspect/json.hpp"

#include <cstdio>

namespace tool {

std::string jsonString(const std::string& text) {
  std::string quoted = "\"";
  for (const char character : text) {
    if (static_cast<unsigned char>(character) < 0x20) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04x", character);
      quoted += escape;
    } else {
      quoted += character == '"' || character == '\\' ? "\\" : "";
      quoted += character;
    }
  }
  return quoted + "\"";
}

}  // namespace tool
