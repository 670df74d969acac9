#pragma once

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <queue>

#include "orvane/export.hpp"
#include "orvane/records.hpp"

namespace orvane {

// A buffer that packs records into one message of a queue: 8 bytes of metadata, then each record's
// 48-byte header and its data, without padding (docs/format.md draws it).
//   ShmBatch batch(1024);
//   batch.pushBack(ShmBatch::Entry(header, data));
//   send(batch.getRaw(), batch.getRawSize());
// A batch owns its buffer. One thread uses it at a time. Errors are Ox_ErrnoException. No call
// blocks.
class ORVANE_API ShmBatch {
 public:
  // The first 8 bytes of a batch, big-endian:  0 magic 4   4 numEntries 4
  struct ORVANE_API MetaData {
    static constexpr std::uint32_t kMagic = 0xFF00EE11;
    static constexpr unsigned long kSerializedSize = 8;

    MetaData() {}  // NOLINT(modernize-use-equals-default): as pvk_shm_message_t

    // Returns kSerializedSize.
    static unsigned long getSerializedSize();

    // Writes the 8-byte form at `p`; returns p + 8. Never fails.
    unsigned char* serializeToBuffer(unsigned char* p) const;

    // Reads the 8 bytes at `p`; returns p + 8. Throws kStatusCorruptMagic when the magic word is
    // not kMagic; the fields then hold what was read.
    const unsigned char* deserializeFromBuffer(const unsigned char* p);

    std::uint32_t magic = kMagic;
    std::uint32_t numEntries = 0;
  };

  // A header and a pointer to its data, which the entry does not own: the data belongs to the
  // caller of pushBack, and to the buffer that an entry was read from.
  struct ORVANE_API Entry {
    Entry(const pvk_shm_message_t& entryHeader, const unsigned char* entryData)
        : header(entryHeader), data(entryData) {}

    // Sets all ten header fields to zero, also the magic word, so that an entry does not look valid
    // before its header is read. It is not explicit, because callers convert.
    // NOLINTNEXTLINE(google-explicit-constructor)
    Entry(const unsigned char* entryData) : data(entryData) {
      header.segmentDone = 0;
      header.magic = 0;
    }

    pvk_shm_message_t header;
    const unsigned char* data;  // null in an entry without data that was read from a batch
  };

  // Makes an empty batch with room for `bufferSize` bytes, including the metadata. Throws
  // kStatusInvalidArgument if that is less than 8.
  ShmBatch(unsigned long bufferSize);  // NOLINT(google-explicit-constructor): callers convert
  ~ShmBatch();
  ShmBatch(const ShmBatch&) = delete;
  ShmBatch& operator=(const ShmBatch&) = delete;

  // Throws kStatusInvalidArgument when `bufferSize` is less than the metadata's 8 bytes.
  static void validBufferSizeAssert(unsigned long bufferSize);

  // The bytes to send are the first getRawSize() at getRaw(). They are a whole batch after every
  // call, and the pointer stays the same for the batch's life.
  const unsigned char* getRaw() const;
  unsigned long getRawSize() const;  // the bytes in use, 8 when empty; not the capacity

  unsigned int getNumEntries() const;
  bool empty() const;

  // Returns true if pushBack has room for this entry's header and header.len bytes.
  bool canStore(const Entry& entry) const;

  // Removes all entries and keeps the capacity. The bytes of the entries are not overwritten.
  void clear();

  // Copies the header and header.len bytes of data into the batch. Throws kStatusNoRoom, or
  // kStatusInvalidArgument if the pointer is null and len is not 0; the entries are unchanged.
  void pushBack(const Entry& entry);

  // Returns entry `index`, which it finds by walking over the entries before it. The entry's data
  // points into this batch and is valid until the batch changes. Throws kStatusInvalidArgument if
  // there is no such entry.
  Entry getEntry(unsigned long index) const;

  // Replaces `entries` by those of a received batch; their data points into `buffer`. It checks
  // only the magic words and that there are 8 bytes, so do not use it on bytes from a process that
  // is not trusted: use BatchView. Throws kStatusInvalidArgument or kStatusCorruptMagic. If the
  // metadata is bad, `entries` is unchanged; if a header is bad, it holds the entries before it.
  static void getEntriesFromBuffer(std::queue<Entry>& entries, const unsigned char* buffer,
                                   unsigned long bufferSize);

 private:
  friend class ShmWriter;
  friend struct RecordSteps;
  friend ORVANE_API std::ostream& operator<<(std::ostream& stream, const ShmBatch& batch);

  ORVANE_LOCAL bool hasRoomFor(std::uint32_t len) const;
  ORVANE_LOCAL void append(const pvk_shm_message_t& entryHeader, const unsigned char* data);

  std::uint64_t bufferSize;
  std::unique_ptr<unsigned char[]> buffer;
  std::uint64_t used;
  MetaData metaData;
  unsigned char* writePos;  // always buffer + used
};

// Writes "type=T, len=L" and, when there is data, ", crc=C" with the data's Adler-32 (RFC 1950).
ORVANE_API std::ostream& operator<<(std::ostream& stream, const ShmBatch::Entry& entry);

// Writes "ShmBatch: entries=N, bufferSize=B, used=U", then ", [i]: " and the text of each entry.
ORVANE_API std::ostream& operator<<(std::ostream& stream, const ShmBatch& batch);

ORVANE_API bool operator==(const ShmBatch::MetaData& a, const ShmBatch::MetaData& b);
ORVANE_API bool operator!=(const ShmBatch::MetaData& a, const ShmBatch::MetaData& b);

// Two entries are equal if their headers and their data bytes are.
ORVANE_API bool operator==(const ShmBatch::Entry& a, const ShmBatch::Entry& b);
ORVANE_API bool operator!=(const ShmBatch::Entry& a, const ShmBatch::Entry& b);

}  // namespace orvane
