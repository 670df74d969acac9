#pragma once

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>

#include "support/temp_folder.hpp"

namespace orvane::test {

// The published totals of a queue, by the offsets of their drawing.
inline std::uint64_t publishedNumber(const std::string& queue, std::size_t offset) {
  const std::string bytes = readFile("/dev/shm/." + queue + ".stats");
  if (bytes.size() != 208) {
    throw std::runtime_error("there are " + std::to_string(bytes.size()) + " bytes of totals");
  }
  std::uint64_t number = 0;
  std::memcpy(&number, bytes.data() + offset, sizeof number);
  return number;
}

inline std::string publishedStream(const std::string& queue) {
  const std::string bytes = readFile("/dev/shm/." + queue + ".stats");
  return bytes.c_str() + 136;
}

}  // namespace orvane::test
