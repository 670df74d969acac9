#include "store_format/capture_header.hpp"

#include <algorithm>

#include "shm/queue_rules.hpp"

namespace tool {
namespace {

// The one place of this layer that knows the byte order; the library's own helper is private.
std::uint64_t loadBig(const unsigned char* bytes, int size) {
  std::uint64_t number = 0;
  for (int i = 0; i < size; ++i) {
    number = number << 8 | bytes[i];
  }
  return number;
}

void storeBig(unsigned char* bytes, int size, std::uint64_t number) {
  for (int i = size - 1; i >= 0; --i) {
    bytes[i] = static_cast<unsigned char>(number);
    number >>= 8;
  }
}

}  // namespace

std::array<unsigned char, CaptureHeader::kSize> bytesOf(const CaptureHeader& header) {
  std::array<unsigned char, CaptureHeader::kSize> bytes = {};
  std::copy(CaptureHeader::kMagic.begin(), CaptureHeader::kMagic.end(), bytes.begin());
  storeBig(&bytes[4], 4, header.queueSize);
  storeBig(&bytes[8], 8, header.messageSize);
  return bytes;
}

std::optional<CaptureHeader> parseCaptureHeader(const unsigned char* bytes) {
  CaptureHeader header;
  header.queueSize = static_cast<std::uint32_t>(loadBig(bytes + 4, 4));
  header.messageSize = loadBig(bytes + 8, 8);
  const bool isOne =
      std::equal(CaptureHeader::kMagic.begin(), CaptureHeader::kMagic.end(), bytes) &&
      header.queueSize <= kMaxQueueName && header.messageSize <= kMaxMessageSize;
  return isOne ? std::optional(header) : std::nullopt;
}

}  // namespace tool
