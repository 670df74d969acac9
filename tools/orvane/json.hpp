#pragma once

#include <nlohmann/json_fwd.hpp>

namespace tool {

// Members stay in the order in which they were added.
using Json = nlohmann::ordered_json;

// Prints one line. Bytes of a text that are not UTF-8 become U+FFFD, so the line is valid JSON for
// every manifest.
void printLine(const Json& json);

// Rounds to thousandths.
double rounded(double number);

}  // namespace tool
