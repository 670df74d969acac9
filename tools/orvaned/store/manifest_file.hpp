#pragma once

#include <cstdint>
#include <orvane/receipt.hpp>
#include <string>

#include "store/output_file.hpp"
#include "store_format/manifest_lines.hpp"

namespace orvaned {

using tool::checksumText;
using tool::kManifest;
using tool::kOtherRecords;
using tool::kUnfinished;
using tool::OtherRecords;
using tool::parseOthers;
using tool::parseSegment;
using tool::segmentName;
using tool::SegmentSummary;

struct StreamSummary {
  orvane::Receipt receipt;
  OtherRecords others;
  std::uint64_t skipped = 0;
  std::string reason;
};

// Adds what a segment holds.
void count(orvane::Receipt& receipt, const SegmentSummary& segment);

// The file `manifest` in a stream's folder: text, with one line for each fact.
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
// in .part belongs to a segment which was not ended. (A file that could not be renamed also still
// ends in .part; the reason then names it.) `skipped` counts the sequence numbers that the producer
// used up without a record that came here. The receipt is the text of the producer's response. The
// reason is the rest of the file; it is empty when the producer ended the stream.
//
// If the server died, the next server adds lines after the segments' lines, instead of
// `other-records` and `skipped`: for files that were not listed, and for files that differ from
// their line. They are not part of the receipt.
//   unfinished file=segment-000002.part bytes=3 crc32=ccddeeff
//   damaged file=segment-000001 reason=it has 8 bytes instead of 9
//
// Lines are written to `manifest.part` as they come (a stream may have more segments than fit in
// memory), and the file is renamed when it is complete. Throws Ox_ErrnoException
// (orvane::kStoreFailed).
class Manifest {
 public:
  Manifest(StreamDirectory* folder, Sync sync)
      : file(folder, std::string(kManifest) + kUnfinished, sync) {}

  // Begins with the first lines, or after the first `size` bytes of an existing file.
  void begin(const std::string& queue, const std::string& stream);
  void resume(std::uint64_t size) { file.resume(size); }

  void add(const SegmentSummary& segment) { line(textOf(segment)); }
  void add(const tool::UnfinishedFile& unfinished) { line(textOf(unfinished)); }
  void addDamaged(const std::string& name, const std::string& reason);

  void flush() { file.flush(); }
  void settle() { file.settle(); }

  // Adds the last lines, with or without those that only the stream's own server knows; or adds
  // none.
  void finish(const StreamSummary& stream);
  void finish(const orvane::Receipt& receipt, const std::string& reason);
  void finish() { file.finish(kManifest); }

 private:
  void line(const std::string& text);

  OutputFile file;
};

}  // namespace orvaned
