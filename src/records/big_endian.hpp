#pragma once

#include <cstdint>
#include <cstring>

namespace orvane {

inline void storeBig32(unsigned char* p, std::uint32_t value) {
  const std::uint32_t big = __builtin_bswap32(value);
  std::memcpy(p, &big, sizeof big);
}

inline void storeBig64(unsigned char* p, std::uint64_t value) {
  const std::uint64_t big = __builtin_bswap64(value);
  std::memcpy(p, &big, sizeof big);
}

inline std::uint32_t loadBig32(const unsigned char* p) {
  std::uint32_t big;
  std::memcpy(&big, p, sizeof big);
  return __builtin_bswap32(big);
}

inline std::uint64_t loadBig64(const unsigned char* p) {
  std::uint64_t big;
  std::memcpy(&big, p, sizeof big);
  return __builtin_bswap64(big);
}

}  // namespace orvane
