#include "orvane/batch.hpp"

#include <cstring>

#include "ox/trace.hpp"
#include "records/batch_append.hpp"
#include "records/batch_layout.hpp"
#include "records/failure.hpp"

namespace orvane {

namespace {

[[noreturn]] void failCorruptMetaData(std::uint32_t magic) {
  fail(kStatusCorruptMagic, "Could not deserialize ShmBatch::MetaData from",
       " buffer because the magic value ", magic,
       " is corrupt (expected=", layout::kMetaDataMagicWord, ")");
}

}  // namespace

unsigned long ShmBatch::MetaData::getSerializedSize() {
  return layout::kMetaDataSize;
}

unsigned char* ShmBatch::MetaData::serializeToBuffer(unsigned char* p) const {
  layout::writeMetaData(p, *this);
  return p + layout::kMetaDataSize;
}

const unsigned char* ShmBatch::MetaData::deserializeFromBuffer(const unsigned char* p) {
  magic = loadBig32(&p[layout::kMetaDataMagic]);
  numEntries = loadBig32(&p[layout::kNumEntries]);
  if (magic != layout::kMetaDataMagicWord) {
    failCorruptMetaData(magic);
  }
  return p + layout::kMetaDataSize;
}

bool operator==(const ShmBatch::MetaData& a, const ShmBatch::MetaData& b) {
  return a.magic == b.magic && a.numEntries == b.numEntries;
}

bool operator!=(const ShmBatch::MetaData& a, const ShmBatch::MetaData& b) {
  return !(a == b);
}

bool operator==(const ShmBatch::Entry& a, const ShmBatch::Entry& b) {
  if (a.header != b.header) {
    return false;
  }
  if (a.data == b.data || a.header.len == 0) {
    return true;
  }
  return a.data != nullptr && b.data != nullptr && std::memcmp(a.data, b.data, a.header.len) == 0;
}

bool operator!=(const ShmBatch::Entry& a, const ShmBatch::Entry& b) {
  return !(a == b);
}

ShmBatch::ShmBatch(unsigned long bufferSize)
    : bufferSize(bufferSize), used(layout::kMetaDataSize), writePos(nullptr) {
  if (TraceOn()) {
    __Trace("%s: bufferSize=%u", "ShmBatch", static_cast<unsigned int>(bufferSize));
  }
  validBufferSizeAssert(bufferSize);
  buffer = std::make_unique<unsigned char[]>(bufferSize);  // zeroed
  writePos = metaData.serializeToBuffer(buffer.get());
}

ShmBatch::~ShmBatch() = default;

void ShmBatch::validBufferSizeAssert(unsigned long bufferSize) {
  if (bufferSize < layout::kMetaDataSize) {
    fail(kStatusInvalidArgument, "Buffer size ", bufferSize,
         " is invalid because it is smaller than the minimum required buffer size of ",
         layout::kMetaDataSize);
  }
}

const unsigned char* ShmBatch::getRaw() const {
  return buffer.get();
}
unsigned long ShmBatch::getRawSize() const {
  return used;
}
unsigned int ShmBatch::getNumEntries() const {
  return metaData.numEntries;
}
bool ShmBatch::empty() const {
  return metaData.numEntries == 0;
}
bool ShmBatch::canStore(const Entry& entry) const {
  return hasRoomFor(entry.header.len);
}

void ShmBatch::clear() {
  used = layout::kMetaDataSize;
  metaData.numEntries = 0;
  writePos = metaData.serializeToBuffer(buffer.get());
}

void ShmBatch::pushBack(const Entry& entry) {
  append(entry.header, entry.data);
}

namespace {

// Returns the entry whose header is at `position`, and moves `position` to the end of its data.
ShmBatch::Entry readEntry(const unsigned char*& position) {
  ShmBatch::Entry entry(nullptr);
  position = entry.header.deserializeFromBuffer(position);
  if (entry.header.len > 0) {
    entry.data = position;
    position += entry.header.len;
  }
  return entry;
}

}  // namespace

ShmBatch::Entry ShmBatch::getEntry(unsigned long index) const {
  if (index >= metaData.numEntries) {
    fail(kStatusInvalidArgument, "Cannot get entry because specified index ", index,
         " is outside the range of available entries ", metaData.numEntries);
  }
  const unsigned char* position = buffer.get() + layout::kMetaDataSize;
  for (unsigned long i = 0; i < index; ++i) {
    readEntry(position);
  }
  return readEntry(position);
}

// It trusts the number of entries and their lengths, because it is for batches from a trusted
// process; programs rely on it to accept every size of 8 and more. BatchView is for all others.
void ShmBatch::getEntriesFromBuffer(std::queue<Entry>& entries, const unsigned char* buffer,
                                    unsigned long bufferSize) {
  validBufferSizeAssert(bufferSize);
  MetaData metaData;
  const unsigned char* position = metaData.deserializeFromBuffer(buffer);
  entries = std::queue<Entry>();
  for (std::uint32_t i = 0; i < metaData.numEntries; ++i) {
    entries.push(readEntry(position));
  }
}

}  // namespace orvane
