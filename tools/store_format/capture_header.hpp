#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace tool {

// What stands before each message of a capture, big-endian:
//   0 magic 4      4 queueSize 4      8 messageSize 8
// Behind it come the queue's name and the message.
struct CaptureHeader {
  static constexpr std::array<unsigned char, 4> kMagic = {'O', 'R', 'V', 'C'};
  static constexpr std::size_t kSize = 16;

  std::uint32_t queueSize = 0;
  std::uint64_t messageSize = 0;
};

std::array<unsigned char, CaptureHeader::kSize> bytesOf(const CaptureHeader& header);

// Of kSize bytes. Nothing when no server can have written them.
std::optional<CaptureHeader> parseCaptureHeader(const unsigned char* bytes);

}  // namespace tool
