#pragma once

#include "orvane/batch.hpp"
#include "orvane/records.hpp"
#include "records/big_endian.hpp"
#include "records/failure.hpp"

// The bytes of a batch, all integers big-endian, no padding anywhere:
//
//   offset  size
//        0     8  metadata
//        8    48  header of entry 0
//       56   len  data of entry 0
//   56+len    48  header of entry 1, and so on
//
// A batch contains neither its size nor a checksum. The size is that of the queue's message, and
// only the magic words show a reader that bytes are a batch.
namespace orvane::layout {

// Metadata: 8 bytes.
constexpr std::size_t kMetaDataMagic = 0;
constexpr std::size_t kNumEntries = 4;
constexpr std::size_t kMetaDataSize = ShmBatch::MetaData::kSerializedSize;
constexpr std::uint32_t kMetaDataMagicWord = ShmBatch::MetaData::kMagic;

// Record header: 48 bytes.
constexpr std::size_t kType = 0;
constexpr std::size_t kLen = 4;
constexpr std::size_t kSeqNo = 8;
constexpr std::size_t kSegmentNo = 16;
constexpr std::size_t kSegmentDone = 24;
constexpr std::size_t kSegAlg = 28;
constexpr std::size_t kSegParam1 = 32;
constexpr std::size_t kSegParam2 = 36;
constexpr std::size_t kSegParam3 = 40;
constexpr std::size_t kHeaderMagic = 44;
constexpr std::size_t kHeaderSize = pvk_shm_message_t::kSerializedSize;
constexpr std::uint32_t kHeaderMagicWord = pvk_shm_message_t::kMagic;

inline void writeMetaData(unsigned char* p, const ShmBatch::MetaData& metaData) {
  storeBig32(&p[kMetaDataMagic], metaData.magic);
  storeBig32(&p[kNumEntries], metaData.numEntries);
}

// Copies field by field: the header was often filled just before, and a load that is wider than
// those stores would wait for them (5 to 9 ns for each record, measured).
inline void writeHeader(unsigned char* p, const pvk_shm_message_t& header) {
  storeBig32(&p[kType], header.type);
  storeBig32(&p[kLen], header.len);
  storeBig64(&p[kSeqNo], header.seqNo);
  storeBig64(&p[kSegmentNo], header.segmentNo);
  storeBig32(&p[kSegmentDone], header.segmentDone);
  storeBig32(&p[kSegAlg], header.segAlg);
  storeBig32(&p[kSegParam1], header.segParam1);
  storeBig32(&p[kSegParam2], header.segParam2);
  storeBig32(&p[kSegParam3], header.segParam3);
  storeBig32(&p[kHeaderMagic], header.magic);
}

// Every reader calls it when a header's magic word is wrong.
[[noreturn, gnu::cold]] inline void failCorruptHeader(std::uint32_t magic) {
  fail(kStatusCorruptMagic, "Could not deserialize pvk_shm_message from",
       " buffer because the magic value ", magic, " is corrupt (expected=", kHeaderMagicWord, ")");
}

inline void readHeader(pvk_shm_message_t& header, const unsigned char* p) {
  header.type = loadBig32(&p[kType]);
  header.len = loadBig32(&p[kLen]);
  header.seqNo = loadBig64(&p[kSeqNo]);
  header.segmentNo = loadBig64(&p[kSegmentNo]);
  header.segmentDone = loadBig32(&p[kSegmentDone]);
  header.segAlg = loadBig32(&p[kSegAlg]);
  header.segParam1 = loadBig32(&p[kSegParam1]);
  header.segParam2 = loadBig32(&p[kSegParam2]);
  header.segParam3 = loadBig32(&p[kSegParam3]);
  header.magic = loadBig32(&p[kHeaderMagic]);
}

}  // namespace orvane::layout
