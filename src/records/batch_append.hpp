#pragma once

#include <cstring>

#include "orvane/batch.hpp"
#include "records/batch_layout.hpp"
#include "records/failure.hpp"

// The two members of ShmBatch that every record uses. They are here so that the writer's data path
// has them inline. An Entry for pushBack would copy the header once more, and the copy would wait
// for the stores that have just filled the header.
namespace orvane {

inline bool ShmBatch::hasRoomFor(std::uint32_t len) const {
  return len + layout::kHeaderSize <= bufferSize - used;
}

[[gnu::always_inline]] inline void ShmBatch::append(const pvk_shm_message_t& entryHeader,
                                                    const unsigned char* data) {
  const std::uint32_t len = entryHeader.len;
  if (!hasRoomFor(len)) {
    fail(kStatusNoRoom,
         "Could not add new batch entry because there is no room for it in the buffer");
  }
  // The header is written even if the data is then refused: readers never read beyond `used`, and
  // the next entry overwrites it.
  layout::writeHeader(writePos, entryHeader);
  if (len > 0) {
    if (data == nullptr) {
      fail(kStatusInvalidArgument, "Invalid header; the specified length of data is ", len,
           " but the data pointer is NULL");
    }
    std::memcpy(writePos + layout::kHeaderSize, data, len);
  }
  // Computed again, because the call before has too few registers to keep it.
  const std::uint64_t size = len + layout::kHeaderSize;
  used += size;
  metaData.numEntries += 1;
  writePos += size;
  layout::writeMetaData(buffer.get(), metaData);
}

}  // namespace orvane
