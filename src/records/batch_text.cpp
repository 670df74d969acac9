#include <ostream>

#include "orvane/batch.hpp"
#include "records/adler32.hpp"

namespace orvane {

std::ostream& operator<<(std::ostream& stream, const ShmBatch::Entry& entry) {
  const std::uint32_t len = entry.header.len;
  stream << "type=" << entry.header.type << ", len=" << len;
  if (len > 0) {
    // Without a pointer there are no bytes to sum, and their checksum is 1.
    stream << ", crc=" << adler32(entry.data, entry.data != nullptr ? len : 0);
  }
  return stream;
}

std::ostream& operator<<(std::ostream& stream, const ShmBatch& batch) {
  const unsigned int numEntries = batch.getNumEntries();
  stream << "ShmBatch: entries=" << numEntries << ", bufferSize=" << batch.bufferSize
         << ", used=" << batch.getRawSize();
  for (unsigned int i = 0; i < numEntries; ++i) {
    stream << ", [" << i << "]: " << batch.getEntry(i);
  }
  return stream;
}

}  // namespace orvane
