#include "store_format/frame_reader.hpp"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "store_format/stored_file.hpp"

namespace tool {
namespace {

constexpr unsigned char kMagic[] = {0x28, 0xB5, 0x2F, 0xFD};
constexpr std::size_t kDescriptor = sizeof kMagic;  // its offset
constexpr std::size_t kShortestHeader = kDescriptor + 1;

constexpr std::size_t kBlockHeader = 3;
constexpr std::size_t kChecksum = 4;
constexpr unsigned kRepeatedByte = 1;  // the type of a block that holds one byte, whatever its size
constexpr unsigned kReserved = 3;

constexpr std::size_t kBuffer = 2 * Decompressor::kLongestBlock;

}  // namespace

FrameReader::FrameReader(Fd file, std::string path)
    : file(std::move(file)),
      path(std::move(path)),
      buffer(std::make_unique_for_overwrite<unsigned char[]>(kBuffer)) {}

std::span<const unsigned char> FrameReader::next() {
  if (taken == 0 && !takeHeader()) {
    return {};
  }
  while (!complete && takeBlock()) {
    if (!data.empty()) {
      return data;
    }
  }
  if (complete && have(1)) {
    failInvalid();
  }
  return {};
}

bool FrameReader::takeHeader() {
  const bool hasDescriptor = have(kShortestHeader);
  if (std::memcmp(bytes(), kMagic, std::min(buffered, sizeof kMagic)) != 0) {
    failInvalid();
  }
  if (!hasDescriptor) {
    return false;
  }
  hasChecksum = (bytes()[kDescriptor] & 0x04) != 0;
  return take(headerSize());
}

std::size_t FrameReader::headerSize() const {
  constexpr std::size_t kDictionary[] = {0, 1, 2, 4};
  constexpr std::size_t kContentSize[] = {0, 2, 4, 8};
  const unsigned descriptor = bytes()[kDescriptor];
  const bool isSingleSegment = (descriptor & 0x20) != 0;  // no window; a content size in any case
  const std::size_t contentSize = kContentSize[descriptor >> 6];
  return kShortestHeader +
         (isSingleSegment ? std::max<std::size_t>(contentSize, 1) : contentSize + 1) +
         kDictionary[descriptor & 0x03];
}

bool FrameReader::takeBlock() {
  if (!have(kBlockHeader)) {
    return false;
  }
  const unsigned header =
      bytes()[0] | static_cast<unsigned>(bytes()[1]) << 8 | static_cast<unsigned>(bytes()[2]) << 16;
  const bool isLast = (header & 1) != 0;
  const unsigned type = header >> 1 & 0x03;
  const std::size_t size = header >> 3;
  if (type == kReserved || size > Decompressor::kLongestBlock) {
    failInvalid();
  }
  const bool isTaken = take(kBlockHeader + (type == kRepeatedByte ? 1 : size) +
                            (isLast && hasChecksum ? kChecksum : 0));
  complete = isTaken && isLast;
  return isTaken;
}

// Returns false, and takes nothing, if the file ends before.
bool FrameReader::take(std::size_t size) {
  if (!have(size)) {
    return false;
  }
  const auto decompressed = decompressor.take({bytes(), size});
  if (!decompressed) {
    failInvalid();
  }
  data = *decompressed;
  begin += size;
  buffered -= size;
  taken += size;
  return true;
}

// Reads on until so many bytes are in the buffer; returns false if the file ends before.
bool FrameReader::have(std::size_t size) {
  if (buffered < size && begin + size > kBuffer) {
    std::memmove(buffer.get(), bytes(), buffered);
    begin = 0;
  }
  while (buffered < size) {
    const std::size_t end = begin + buffered;
    const ssize_t count = read(file.get(), buffer.get() + end, kBuffer - end);
    if (count < 0) {
      failToRead(path, errno);
    }
    if (count == 0) {
      return false;
    }
    buffered += static_cast<std::size_t>(count);
  }
  return true;
}

void FrameReader::failInvalid() const {
  throw std::runtime_error("its compressed data is invalid: cannot read " + path);
}

}  // namespace tool
