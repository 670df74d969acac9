#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace tool {

// The header of each message in a capture, big-endian:
//   0 magic 4      4 queueSize 4      8 messageSize 8
// The queue's name and the message follow it.
struct CaptureHeader {
  static constexpr std::array<unsigned char, 4> kMagic = {'O', 'R', 'V', 'C'};
  static constexpr std::size_t kSize = 16;

  std::uint32_t queueSize = 0;    // bytes of the queue's name
  std::uint64_t messageSize = 0;  // bytes of the message
};

std::array<unsigned char, CaptureHeader::kSize> bytesOf(const CaptureHeader& header);

// Reads kSize bytes. Returns nothing if they are not a header that a server can have written.
std::optional<CaptureHeader> parseCaptureHeader(const unsigned char* bytes);

}  // namespace tool
