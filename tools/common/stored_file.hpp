#pragma once

#include <cstdint>
#include <string>

namespace tool {

struct Content {
  std::uint64_t bytes = 0;
  std::uint32_t checksum = 0;
};

// Reads the whole file. Throws std::runtime_error.
Content contentOf(const std::string& path);

// Why the file is not what was listed; empty when it is.
std::string faultOf(const std::string& path, const Content& listed);

}  // namespace tool
