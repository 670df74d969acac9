#pragma once

#include <cstddef>
#include <cstdint>

#include "orvane/batch_view.hpp"
#include "records/batch_layout.hpp"
#include "records/failure.hpp"

namespace orvane::layout {

// Checks the headers of a batch, from the first to the last, before a reader uses them. Every
// length is compared with the bytes that are left before it is used, so no position can overflow.
class BatchCheck {
 public:
  // Checks the metadata of a batch of `size` bytes.
  BatchCheck(const unsigned char* metaData, std::size_t size) : size(size) {
    ShmBatch::validBufferSizeAssert(size);
    ShmBatch::MetaData found;
    found.deserializeFromBuffer(metaData);
    count = found.numEntries;
    left = size - kMetaDataSize;
    if (count > left / kHeaderSize) {
      fail(kStatusInvalidArgument, "Could not read batch because its ", count,
           " entries need at least ", count * kHeaderSize, " bytes but only ", left, " are there");
    }
  }

  std::uint32_t entries() const { return count; }

  // Returns whether the bytes of another header are there. Throws if they should be, and if bytes
  // are left over after the last entry.
  bool expectHeader() const {
    if (index < count) {
      if (left < kHeaderSize) {
        failShort("header", kHeaderSize, left);
      }
      return true;
    }
    if (left > 0) {
      fail(kStatusInvalidArgument, "Could not read batch because ", left,
           " bytes are left over behind its ", count, " entries at offset ", size - left);
    }
    return false;
  }

  // Returns the bytes of the entry that begins with this header; they are all there.
  std::size_t take(const unsigned char* header) {
    const std::uint32_t magic = loadBig32(&header[kHeaderMagic]);
    if (magic != kHeaderMagicWord) {
      failCorruptHeader(magic);
    }
    const std::size_t needed = stride.from(header);
    if (needed > left) {
      failShort("data", needed - kHeaderSize, left - kHeaderSize);
    }
    left -= needed;
    ++index;
    return needed;
  }

 private:
  [[noreturn, gnu::cold]] void failShort(const char* what, std::size_t needed,
                                         std::size_t there) const {
    fail(kStatusInvalidArgument, "Could not read batch entry ", index, " at offset ", size - left,
         " because its ", what, " needs ", needed, " bytes but only ", there, " are there");
  }

  std::size_t size;
  std::size_t left;
  std::uint32_t count;
  std::uint32_t index = 0;
  BatchView::Stride stride;
};

}  // namespace orvane::layout
