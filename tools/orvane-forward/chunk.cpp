#include "chunk.hpp"

#include <algorithm>

namespace forward {

std::size_t chunkSizeFor(std::uint64_t payloadLimit) {
  if (payloadLimit < kSmallestChunk + kRoomForHeaders) {
    return 0;
  }
  return static_cast<std::size_t>(
      std::min<std::uint64_t>(payloadLimit - kRoomForHeaders, kLargestChunk));
}

}  // namespace forward
