#include "orvane/batch_view.hpp"

#include "records/batch_layout.hpp"
#include "records/failure.hpp"

namespace orvane {

using layout::kHeaderSize;
using layout::kMetaDataSize;

namespace {

[[noreturn, gnu::cold]] void failShort(std::uint32_t index, std::size_t offset, const char* what,
                                       std::size_t needed, std::size_t there) {
  fail(kStatusInvalidArgument, "Could not read batch entry ", index, " at offset ", offset,
       " because its ", what, " needs ", needed, " bytes but only ", there, " are there");
}

}  // namespace

// Every length is compared with the bytes that are left before it is used, so no position can
// overflow.
BatchView::BatchView(const unsigned char* bytes, std::size_t size) : bytes(bytes), byteSize(size) {
  static_assert(Stride::kLenOffset == layout::kLen);
  ShmBatch::validBufferSizeAssert(size);
  ShmBatch::MetaData metaData;
  const unsigned char* header = metaData.deserializeFromBuffer(bytes);
  count = metaData.numEntries;
  std::size_t left = size - kMetaDataSize;
  if (count > left / kHeaderSize) {
    fail(kStatusInvalidArgument, "Could not read batch because its ", count,
         " entries need at least ", std::uint64_t{count} * kHeaderSize, " bytes but only ", left,
         " are there");
  }
  Stride stride;
  for (std::uint32_t i = 0; i < count; ++i) {
    if (left < kHeaderSize) {
      failShort(i, size - left, "header", kHeaderSize, left);
    }
    const std::uint32_t magic = loadBig32(&header[layout::kHeaderMagic]);
    if (magic != layout::kHeaderMagicWord) {
      layout::failCorruptHeader(magic);
    }
    const std::size_t needed = stride.from(header);
    if (needed > left) {
      failShort(i, size - left, "data", needed - kHeaderSize, left - kHeaderSize);
    }
    left -= needed;
    header += needed;
  }
  if (left > 0) {
    fail(kStatusInvalidArgument, "Could not read batch because ", left,
         " bytes are left over behind its ", count, " entries at offset ", size - left);
  }
}

BatchView::Iterator BatchView::begin() const {
  return Iterator(bytes + kMetaDataSize);
}
BatchView::Iterator BatchView::end() const {
  return Iterator(bytes + byteSize);
}

ShmBatch::Entry BatchView::Iterator::operator*() const {
  ShmBatch::Entry entry(nullptr);
  layout::readHeader(entry.header, position);
  if (entry.header.len > 0) {
    entry.data = position + kHeaderSize;
  }
  return entry;
}

}  // namespace orvane
