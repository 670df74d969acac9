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

// Writes a stream's manifest; store_format/manifest_lines.hpp draws the file and has its lines.
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
  void add(const std::string& segmentLine) { line(segmentLine); }
  void add(const tool::UnfinishedFile& unfinished) { line(textOf(unfinished)); }
  void addDamaged(const std::string& name, const std::string& reason);

  void flush() { file.flush(); }
  void settle() { file.settle(); }
  void catchUp() { file.catchUp(); }

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
