#pragma once

#include <cstring>

#include "orvane/batch.hpp"
#include "records/batch_layout.hpp"
#include "records/failure.hpp"

// The two members of ShmBatch that every record passes through, here so that the writer's data path
// has them inline: an Entry made for pushBack would be one more copy of the header, and one that
// waits for the stores which have just filled it.
namespace orvane {

inline bool ShmBatch::hasRoomFor(std::uint32_t len) const {
  return std::uint64_t{len} + layout::kHeaderSize <= bufferSize - used;
}

[[gnu::always_inline]] inline void ShmBatch::append(const pvk_shm_message_t& entryHeader,
                                                    const unsigned char* data) {
  const std::uint32_t len = entryHeader.len;
  if (!hasRoomFor(len)) {
    fail(kStatusNoRoom,
         "Could not add new batch entry because there is no room for it in the buffer");
  }
  // The header goes first, even if the data is then refused: readers never look past `used`, and
  // the next entry overwrites it.
  unsigned char* const target = writePos;
  layout::writeHeader(target, entryHeader);
  if (len > 0) {
    if (data == nullptr) {
      fail(kStatusInvalidArgument, "Invalid header; the specified length of data is ", len,
           " but the data pointer is NULL");
    }
    std::memcpy(target + layout::kHeaderSize, data, len);
  }
  used += layout::kHeaderSize + len;
  metaData.numEntries += 1;
  writePos = target + layout::kHeaderSize + len;
  layout::writeMetaData(buffer.get(), metaData);
}

}  // namespace orvane
