#include "orvane/batch_view.hpp"

#include "records/batch_check.hpp"
#include "records/batch_layout.hpp"

namespace orvane {

using layout::kHeaderSize;
using layout::kMetaDataSize;

BatchView::BatchView(const unsigned char* bytes, std::size_t size) : bytes(bytes), byteSize(size) {
  static_assert(Stride::kLenOffset == layout::kLen);
  layout::BatchCheck check(bytes, size);
  count = check.entries();
  for (const unsigned char* header = bytes + kMetaDataSize; check.expectHeader();) {
    header += check.take(header);
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
