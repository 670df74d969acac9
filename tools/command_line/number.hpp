#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>

namespace tool {

// The check of an option whose value is a whole number in a range. To be given to transform():
// CLI11 would read 010 as 8.
CLI::Validator numberFrom(std::uint64_t least, std::uint64_t most);

}  // namespace tool
