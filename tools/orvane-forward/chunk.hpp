#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "subjects.hpp"

namespace forward {

// The headers of a message. The offset counts from the begin of the file, and the checksum is the
// CRC-32 of the message's data, as gzip computes it.
constexpr char kOffsetHeader[] = "Orvane-Offset";
constexpr char kChecksumHeader[] = "Orvane-Crc32";
constexpr char kLastHeader[] = "Orvane-Last";  // "1" with the last chunk of a file; else missing

// The largest chunk. With the payload limit that the cluster has by default, 1 MiB, there is room
// for the headers.
constexpr std::size_t kLargestChunk = 960 << 10;
constexpr std::size_t kRoomForHeaders = 4 << 10;
constexpr std::size_t kSmallestChunk = 1 << 10;

// Returns the size of chunks for a payload limit; 0: no chunk fits.
std::size_t chunkSizeFor(std::uint64_t payloadLimit);

// A part of a file, as it is sent.
struct Chunk {
  std::string subject;
  std::uint64_t offset = 0;
  bool isLast = false;
  std::uint32_t checksum = 0;
  std::span<const unsigned char> data;
};

}  // namespace forward
