#pragma once

#include <cstdint>
#include <filesystem>

#include "input.hpp"
#include "interrupt.hpp"

namespace tool {

// Compares the segments of a stored stream, in the order of its manifest, with what `source`
// delivers. Throws Failure with the place of the first difference.
void requireSameBytes(const std::filesystem::path& streamFolder, const Reader& source,
                      Interrupt& interrupt);

}  // namespace tool
