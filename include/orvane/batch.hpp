#pragma once

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <queue>

#include "orvane/export.hpp"
#include "orvane/records.hpp"

namespace orvane {

// A buffer that packs records for one queue message: 8 bytes of metadata, then each record's
// 48-byte header and its data, without padding (docs/format.md draws it).
//   ShmBatch batch(1024);
//   batch.pushBack(ShmBatch::Entry(header, data));
//   send(batch.getRaw(), batch.getRawSize());
// Owns its buffer. One thread at a time. Errors are Ox_ErrnoException.
class ORVANE_API ShmBatch {
 public:
  // The block at the start of the buffer, big-endian:  0 magic 4   4 numEntries 4
  struct ORVANE_API MetaData {
    static constexpr std::uint32_t kMagic = 0xFF00EE11;
    static constexpr unsigned long kSerializedSize = 8;

    MetaData() {}  // NOLINT(modernize-use-equals-default): as pvk_shm_message_t

    // kSerializedSize.
    static unsigned long getSerializedSize();

    // Writes the 8-byte form at `p`; returns p + 8. Never fails.
    unsigned char* serializeToBuffer(unsigned char* p) const;

    // Reads the 8 bytes at `p`; returns p + 8. Throws kStatusCorruptMagic when the magic word is
    // not kMagic; the record then holds what was read.
    const unsigned char* deserializeFromBuffer(const unsigned char* p);

    std::uint32_t magic = kMagic;
    std::uint32_t numEntries = 0;
  };

  // A header and a pointer to its data. The data is not owned: it is the producer's on the way in
  // and the batch buffer's on the way out.
  struct ORVANE_API Entry {
    Entry(const pvk_shm_message_t& entryHeader, const unsigned char* entryData)
        : header(entryHeader), data(entryData) {}

    // All ten header fields are zero, the magic word too, so that nothing in an entry which is
    // about to be read looks valid. Callers convert.
    // NOLINTNEXTLINE(google-explicit-constructor)
    Entry(const unsigned char* entryData) : data(entryData) {
      header.segmentDone = 0;
      header.magic = 0;
    }

    pvk_shm_message_t header;
    const unsigned char* data;  // null in an entry that was read back without data
  };

  // An empty batch with room for `bufferSize` bytes, metadata included. Throws
  // kStatusInvalidArgument below 8.
  ShmBatch(unsigned long bufferSize);  // NOLINT(google-explicit-constructor): callers convert
  ~ShmBatch();
  ShmBatch(const ShmBatch&) = delete;
  ShmBatch& operator=(const ShmBatch&) = delete;

  // Throws kStatusInvalidArgument when `bufferSize` is less than the metadata's 8 bytes.
  static void validBufferSizeAssert(unsigned long bufferSize);

  // The bytes to hand to a reader: the first getRawSize() at getRaw(), complete after every call.
  // The pointer stays the same for the batch's life.
  const unsigned char* getRaw() const;
  unsigned long getRawSize() const;  // bytes in use, 8 when empty; not the capacity

  unsigned int getNumEntries() const;
  bool empty() const;

  // Would pushBack have room for this entry's header and header.len bytes?
  bool canStore(const Entry& entry) const;

  // Forgets the entries and keeps the capacity; the old bytes stay where they are.
  void clear();

  // Copies the header and header.len bytes of data into the batch. Throws kStatusNoRoom, or
  // kStatusInvalidArgument for a null pointer with a len; the entries are then as before.
  void pushBack(const Entry& entry);

  // Entry `index`, found by walking the earlier ones; its data points into this batch and is valid
  // until the batch changes. Throws kStatusInvalidArgument past the end.
  Entry getEntry(unsigned long index) const;

  // Replaces `entries` by those of a received batch; their data points into `buffer`.
  // Trusts its writer: only the magic words and the 8-byte minimum are checked, so it must not be
  // used on bytes from a process that is not trusted (BatchView is for those). Throws
  // kStatusInvalidArgument or kStatusCorruptMagic; `entries` is untouched when the metadata is bad,
  // and holds the entries before the bad header otherwise.
  static void getEntriesFromBuffer(std::queue<Entry>& entries, const unsigned char* buffer,
                                   unsigned long bufferSize);

 private:
  friend class ShmWriter;
  friend ORVANE_API std::ostream& operator<<(std::ostream& stream, const ShmBatch& batch);

  ORVANE_LOCAL bool hasRoomFor(std::uint32_t len) const;
  ORVANE_LOCAL void append(const pvk_shm_message_t& entryHeader, const unsigned char* data);

  std::uint64_t bufferSize;
  std::unique_ptr<unsigned char[]> buffer;
  std::uint64_t used;
  MetaData metaData;
  unsigned char* writePos;  // always buffer + used
};

// "type=T, len=L" and, when there is data, ", crc=C" with the data's Adler-32 (RFC 1950).
ORVANE_API std::ostream& operator<<(std::ostream& stream, const ShmBatch::Entry& entry);

// "ShmBatch: entries=N, bufferSize=B, used=U", then ", [i]: " and the text of each entry.
ORVANE_API std::ostream& operator<<(std::ostream& stream, const ShmBatch& batch);

ORVANE_API bool operator==(const ShmBatch::MetaData& a, const ShmBatch::MetaData& b);
ORVANE_API bool operator!=(const ShmBatch::MetaData& a, const ShmBatch::MetaData& b);

// Equal headers and equal data bytes.
ORVANE_API bool operator==(const ShmBatch::Entry& a, const ShmBatch::Entry& b);
ORVANE_API bool operator!=(const ShmBatch::Entry& a, const ShmBatch::Entry& b);

}  // namespace orvane
