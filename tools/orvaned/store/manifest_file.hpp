#pragma once

#include <cstdint>
#include <orvane/receipt.hpp>
#include <string>

#include "store/output_file.hpp"
#include "store_format/manifest_lines.hpp"
#include "store_format/stream_head.hpp"

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
using tool::StreamHead;

struct StreamSummary {
  orvane::Receipt receipt;
  OtherRecords others;
  std::uint64_t skipped = 0;
  std::string reason;
};

// A beginning of a manifest, up to the end of a line.
struct ManifestPart {
  int format = tool::kManifestFormat;
  std::uint64_t bytes = 0;
  std::uint32_t checksum = 0;
};

// Adds what a segment holds.
void count(orvane::Receipt& receipt, const SegmentSummary& segment);

// Writes a stream's manifest; store_format/manifest_lines.hpp draws the file and has its lines.
//
// Lines are written to `manifest.part` as they come (a stream may have more segments than fit in
// memory), and the file is renamed when it is complete. Throws Ox_ErrnoException
// (orvane::kStoreFailed).
class ManifestFile {
 public:
  ManifestFile(StreamDirectory* folder, Sync sync)
      : file(folder, std::string(kManifest) + kUnfinished, sync) {}

  // Begins with the first lines, or after a part of an existing file.
  void begin(const StreamHead& head);
  void resume(const ManifestPart& part);

  void add(const SegmentSummary& segment) { line(textOf(segment)); }
  void add(const std::string& segmentLine) { line(segmentLine); }
  void add(const tool::UnfinishedFile& unfinished) { line(textOf(unfinished)); }
  void addDamaged(const std::string& name, const std::string& reason);

  void flush() { file.flush(); }
  void settle() { file.settle(); }

  // Goes on after the line that another process has added; empty: it has added none.
  void catchUp(const std::string& addedLine);

  // Adds the last lines, with or without those that only the stream's own server knows; or adds
  // none. The stream has ended now.
  void finish(const StreamSummary& stream);
  void finish(const orvane::Receipt& receipt, const std::string& reason);
  void finish() { file.finish(kManifest); }

 private:
  void line(const std::string& text);
  std::string counted(const std::string& text);

  OutputFile file;
  int format = tool::kManifestFormat;
  std::uint32_t checksum = 0;  // of all lines so far
};

}  // namespace orvaned
