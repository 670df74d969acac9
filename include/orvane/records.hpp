#pragma once

#include <cstdint>
#include <iosfwd>

#include "orvane/export.hpp"
#include "orvane/status.hpp"

// The segment state (algorithm) of a stream. writeSegment accepts these two; a header may carry any
// 32-bit value.
enum orvane_seg_state_t : std::int32_t {
  kOrvaneSegBounded = 0,    // one record holds at most ShmWriter::getMaxSegmentSize() data bytes
  kOrvaneSegUnbounded = 1,  // one record holds as many data bytes as fit into a batch
};

namespace orvane {

using ::orvane_seg_state_t;

// The types of records, in pvk_shm_message_t::type. A producer may use other values for its own
// types.
constexpr std::uint32_t kRecordOpen = 0;
constexpr std::uint32_t kRecordSegmentData = 1;
constexpr std::uint32_t kRecordEndOfSegment = 2;
constexpr std::uint32_t kRecordClose = 3;
constexpr std::uint32_t kRecordStop = 4;

// The header before every record's data. It is a plain value. Its serialized form has 48 bytes,
// big-endian, without padding:
//
//    0  type      4      24  segmentDone  4
//    4  len       4      28  segAlg       4
//    8  seqNo     8      32  segParam1    4
//   16  segmentNo 8      36  segParam2    4
//                        40  segParam3    4
//                        44  magic        4
struct ORVANE_API pvk_shm_message_t {
  static constexpr std::uint32_t kMagic = 0xAABBCCDD;
  static constexpr unsigned long kSerializedSize = 48;

  // It is not defaulted, because the record would then be an aggregate in C++17, but not in C++20.
  pvk_shm_message_t() {}  // NOLINT(modernize-use-equals-default)

  // Returns kSerializedSize.
  static unsigned long getSerializedSize();

  // Writes the 48-byte form at `p`, which must have room for it; returns p + 48. Never fails.
  unsigned char* serializeToBuffer(unsigned char* p) const;

  // Reads the 48 bytes at `p` into this record; returns p + 48. Throws kStatusCorruptMagic when the
  // magic word is not kMagic; the fields then hold what was read.
  const unsigned char* deserializeFromBuffer(const unsigned char* p);

  std::uint32_t type = 0;         // one of the kRecord constants, or a type of the producer's own
  std::uint32_t len = 0;          // the number of data bytes after the header
  std::uint64_t seqNo = 0;        // the record's number within its stream; it only increases
  std::uint64_t segmentNo = 0;    // the segment's number within its stream, from 0
  std::uint32_t segmentDone = 1;  // 0 while a segment has data and has not ended
  std::uint32_t segAlg = 0;       // an orvane_seg_state_t; the next three are its parameters
  std::uint32_t segParam1 = 0;
  std::uint32_t segParam2 = 0;
  std::uint32_t segParam3 = 0;
  std::uint32_t magic = kMagic;
};

// Writes "(seqNo,type,len,segAlg,segmentNo,segmentDone,segParam1,segParam2,segParam3,magic)"
// without a line end. The stream's own settings format the numbers.
ORVANE_API std::ostream& operator<<(std::ostream& stream, const pvk_shm_message_t& header);

ORVANE_API bool operator==(const pvk_shm_message_t& a, const pvk_shm_message_t& b);
ORVANE_API bool operator!=(const pvk_shm_message_t& a, const pvk_shm_message_t& b);

// The server's response to a batch: a plain value that is sent as its own 132 bytes, in host order.
//    0 status 4      4 text 128, zero-terminated
struct ORVANE_API pvk_shm_response_t {
  pvk_shm_response_t() {}  // NOLINT(modernize-use-equals-default): as above

  // Stores `newStatus`, and the string `newText` cut to 127 characters. `newText` is not null; it
  // may point into this response's own text.
  void assign(ox_status_t newStatus, const char* newText);

  ox_status_t status = 0;  // 0 means success; server_status.hpp has orvaned's errors
  char text[128] = {};     // the reason of an error, or a receipt, or nothing
};

ORVANE_API bool operator==(const pvk_shm_response_t& a, const pvk_shm_response_t& b);
ORVANE_API bool operator!=(const pvk_shm_response_t& a, const pvk_shm_response_t& b);

}  // namespace orvane
