#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace orvane {

// Adler-32 (RFC 1950). The sums of up to 5552 bytes cannot overflow 32 bits, so the modulo is only
// needed after each 5552 bytes.
inline std::uint32_t adler32(const unsigned char* data, std::size_t length) {
  constexpr std::uint32_t kModulus = 65521;
  constexpr std::size_t kDeferral = 5552;
  std::uint32_t low = 1;
  std::uint32_t high = 0;
  while (length > 0) {
    const std::size_t run = std::min(length, kDeferral);
    for (std::size_t i = 0; i < run; ++i) {
      low += data[i];
      high += low;
    }
    low %= kModulus;
    high %= kModulus;
    data += run;
    length -= run;
  }
  return high << 16 | low;
}

}  // namespace orvane
