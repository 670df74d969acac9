#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <orvane/receipt.hpp>
#include <string>

namespace tool {

// The file `manifest` in a stream's folder: text, with one line for each fact. Every line is
// written and parsed here.
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

// One stored segment. The algorithm and its parameters are those of the segment's first record.
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

// The name of the manifest in a stream's folder.
constexpr char kManifest[] = "manifest";

// The ending of a file's name while the file is not finished.
constexpr char kUnfinished[] = ".part";

// The name of a segment's file begins with this; segmentName() returns the whole name.
constexpr char kSegmentPrefix[] = "segment-";
std::string segmentName(std::uint64_t number);

constexpr char kOtherRecords[] = "other-records";

// The records of other types, which are stored in the file of this name.
struct OtherRecords {
  std::uint64_t records = 0;
  std::uint64_t bytes = 0;     // of their data
  std::uint32_t checksum = 0;  // of the file

  bool operator==(const OtherRecords&) const = default;
};

// A file that the manifest did not list yet when its server died.
struct UnfinishedFile {
  std::string file;
  std::uint64_t bytes = 0;
  std::uint32_t checksum = 0;

  bool operator==(const UnfinishedFile&) const = default;
};

// The lines before the segments' lines.
std::array<std::string, 3> firstLines(const std::string& queue, const std::string& stream);

// These write a line of the manifest and read it. The parsers return nothing unless the line is
// exactly what textOf() writes.
std::string textOf(const SegmentSummary& segment);
std::string textOf(const OtherRecords& others);
std::string textOf(const UnfinishedFile& unfinished);
std::optional<SegmentSummary> parseSegment(const std::string& line);
std::optional<OtherRecords> parseOthers(const std::string& line);
std::optional<UnfinishedFile> parseUnfinished(const std::string& line);

// Does the line list a file? It does even if the rest of the line is invalid.
bool listsSegmentFile(const std::string& line);
bool listsOtherRecords(const std::string& line);
bool listsUnfinishedFile(const std::string& line);

// These lines are only shown, and never parsed.
std::string damagedLine(const std::string& file, const std::string& reason);
std::string skippedLine(std::uint64_t skipped);

// The last lines, from the receipt to the reason, and whether a line is the reason.
std::array<std::string, 5> lastLines(const orvane::Receipt& receipt, const std::string& reason);
bool isReason(const std::string& line);

std::string checksumText(std::uint32_t checksum);

}  // namespace tool
