#include "store_format/capture_header.hpp"

#include <algorithm>

namespace tool {
namespace {

// The limits of orvaned's own options.
constexpr std::uint32_t kMaxQueueSize = 200;
constexpr std::uint64_t kMaxMessageSize = std::uint64_t{1} << 30;

std::uint64_t numberAt(const unsigned char* bytes, int size) {
  std::uint64_t number = 0;
  for (int i = 0; i < size; ++i) {
    number = number << 8 | bytes[i];
  }
  return number;
}

void putNumber(unsigned char* bytes, int size, std::uint64_t number) {
  for (int i = size - 1; i >= 0; --i) {
    bytes[i] = static_cast<unsigned char>(number);
    number >>= 8;
  }
}

}  // namespace

std::array<unsigned char, CaptureHeader::kSize> bytesOf(const CaptureHeader& header) {
  std::array<unsigned char, CaptureHeader::kSize> bytes = {};
  std::copy(CaptureHeader::kMagic.begin(), CaptureHeader::kMagic.end(), bytes.begin());
  putNumber(&bytes[4], 4, header.queueSize);
  putNumber(&bytes[8], 8, header.messageSize);
  return bytes;
}

std::optional<CaptureHeader> parseCaptureHeader(const unsigned char* bytes) {
  CaptureHeader header;
  header.queueSize = static_cast<std::uint32_t>(numberAt(bytes + 4, 4));
  header.messageSize = numberAt(bytes + 8, 8);
  const bool isOne =
      std::equal(CaptureHeader::kMagic.begin(), CaptureHeader::kMagic.end(), bytes) &&
      header.queueSize <= kMaxQueueSize && header.messageSize <= kMaxMessageSize;
  return isOne ? std::optional(header) : std::nullopt;
}

}  // namespace tool
