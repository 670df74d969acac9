#include "json.hpp"

#include <cmath>
#include <iostream>
#include <nlohmann/json.hpp>

namespace tool {

void printLine(const Json& json) {
  std::cout << json.dump(-1, ' ', false, Json::error_handler_t::replace) << "\n";
}

double rounded(double number) {
  return std::round(number * 1000) / 1000;
}

}  // namespace tool
