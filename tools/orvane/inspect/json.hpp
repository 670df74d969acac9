#pragma once

#include <nlohmann/json_fwd.hpp>

namespace tool {

// Its members stay in the order in which they were added.
using Json = nlohmann::ordered_json;

// Prints it on a line of its own. What is no UTF-8 in a text becomes U+FFFD: the line is valid JSON
// whatever a manifest holds.
void printLine(const Json& json);

// Rounded to thousandths.
double rounded(double number);

}  // namespace tool
