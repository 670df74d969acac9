#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "common/receipt.hpp"
#include "output_file.hpp"

namespace orvaned {

// What is kept of one segment. The algorithm and its parameters are those of its first record.
struct SegmentSummary {
  std::uint64_t number = 0;
  std::uint64_t records = 0;
  std::uint64_t bytes = 0;
  std::uint32_t algorithm = 0;
  std::uint32_t parameters[3] = {};
  std::uint32_t checksum = 0;
  std::string file;  // empty: the segment holds no data

  bool operator==(const SegmentSummary&) const = default;
};

// What a file has behind its name while it is not finished.
constexpr char kUnfinished[] = ".part";

// The name of a segment's file.
std::string segmentName(std::uint64_t number);

constexpr char kOtherRecords[] = "other-records";

// The records of other types, in the file of that name.
struct OtherRecords {
  std::uint64_t records = 0;
  std::uint64_t bytes = 0;     // of their data
  std::uint32_t checksum = 0;  // of the file

  bool operator==(const OtherRecords&) const = default;
};

struct StreamSummary {
  tool::Receipt receipt;
  OtherRecords others;
  std::uint64_t skipped = 0;
  std::string reason;
};

// Adds what a segment holds.
void count(tool::Receipt& receipt, const SegmentSummary& segment);

// A line of the manifest and back; nothing when the line is not exactly one.
std::string textOf(const SegmentSummary& segment);
std::string textOf(const OtherRecords& others);
std::optional<SegmentSummary> parseSegment(const std::string& line);
std::optional<OtherRecords> parseOthers(const std::string& line);

std::string checksumText(std::uint32_t checksum);

// The file `manifest` in a stream's folder: text, one line a fact.
//   format=1
//   queue=orders
//   stream=20261121T023224-4711_0
//   segment number=0 records=2 bytes=9 algorithm=1 parameters=7,8,9 crc32=00112233 file=...00000
//   segment number=1 records=0 bytes=0 algorithm=1 parameters=7,8,9 crc32=00000000 file=-
//   segment number=1 records=1 bytes=3 algorithm=0 parameters=0,0,0 crc32=44556677 file=....part
//   other-records=1 bytes=5 crc32=8899aabb
//   skipped=0
//   receipt stream=20261121T023224-4711_0 records=4 bytes=17 segments=2 end=cut-off
//   records=4
//   bytes=17
//   end=cut-off
//   reason=the server was stopped
// A segment without data has no file; the next one may have the same number. A file that still ends
// in .part is that of a segment which was not ended. (One that could not be renamed, as the reason
// says then, still has its .part too.) `skipped` counts the sequence numbers that the
// producer used up without a record that came here. The receipt is what the producer was answered.
// The reason is the rest of the file; empty when the producer ended the stream.
//
// What a server that died had not listed, and what no longer is as it was listed, the next server
// adds behind the segments' lines, instead of `other-records` and `skipped`. It is no part of the
// receipt.
//   unfinished file=segment-000002.part bytes=3 crc32=ccddeeff
//   damaged file=segment-000001 reason=it has 8 bytes instead of 9
//
// The lines go to `manifest.part` as they come (a stream may have more segments than fit in memory)
// and the file is renamed when it is complete. Throws Ox_ErrnoException (kStoreFailed).
class Manifest {
 public:
  Manifest(const std::string& folder, Sync sync);

  // The first lines, or the first `size` bytes of a file that is there.
  void begin(const std::string& queue, const std::string& stream);
  void resume(std::uint64_t size) { file.resume(size); }

  void add(const SegmentSummary& segment) { line(textOf(segment)); }
  void addUnfinished(const std::string& name, std::uint64_t bytes, std::uint32_t checksum);
  void addDamaged(const std::string& name, const std::string& reason);

  void flush() { file.flush(); }
  void settle() { file.settle(); }

  // The last lines, with or without what only the server of the stream knows; or no more lines.
  void finish(const StreamSummary& stream);
  void finish(const tool::Receipt& receipt, const std::string& reason);
  void finish() { file.finish(path); }

 private:
  void line(const std::string& text);

  const std::string path;
  OutputFile file;
};

}  // namespace orvaned
