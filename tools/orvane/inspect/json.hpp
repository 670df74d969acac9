#pragma once

#include <string>

namespace tool {

// The text between quotes, as a JSON string.
std::string jsonString(const std::string& text);

}  // namespace tool
