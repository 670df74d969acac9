#pragma once

#include <cstdint>
#include <optional>
#include <orvane/receipt.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "shm/utc.hpp"

namespace tool {

// The file `manifest` in a stream's folder: text, with one line for each fact. Every line is
// written and parsed here.
//   format=2
//   queue=orders
//   stream=20261121T023224-4711_0
//   producer=uid=1000 gid=1000 pid=4712 executable=backup
//   label=app.log
//   begun=2026-11-21T02:32:24.123Z
//   segment number=0 records=2 bytes=9 algorithm=1 parameters=7,8,9 crc32=00112233 file=...00000
//   segment number=1 records=0 bytes=0 algorithm=1 parameters=7,8,9 crc32=00000000 file=-
//   segment number=1 records=1 bytes=3 algorithm=0 parameters=0,0,0 crc32=44556677 file=....part
//   other-records=1 bytes=5 crc32=8899aabb
//   skipped=0
//   receipt stream=20261121T023224-4711_0 records=4 bytes=17 segments=2 end=cut-off
//   records=4
//   bytes=17
//   end=cut-off
//   ended=2026-11-21T02:32:31.004Z
//   reason=the%20server%20was%20stopped
//   crc32=a1b2c3d4
// The executable, the label and the reasons are escaped (orvane/escaped_text.hpp). A line whose
// value is not known is missing: `producer` and `label` of a fixed queue, the executable of a
// process that the server may not examine. A segment without data has no file; the next one may
// have the same number. A file that still ends in .part belongs to a segment which was not ended.
// (A file that could not be renamed also still ends in .part; the reason then names it.) `skipped`
// counts the sequence numbers that the producer used up without a record that came here. The
// receipt is the text of the producer's response. The reason is empty when the producer ended the
// stream. The CRC-32 is that of all lines before it, so a change of any line can be found.
//
// The line of a compressed file also has the bytes of the file. Its other numbers are those of the
// data, and its name ends in .zst, before .part if it has that:
//   segment number=2 records=9 bytes=999 ... crc32=8899aabb stored=99 file=segment-000002.zst
//
// Format 1, of earlier releases, has neither producer, label, begun, ended nor crc32. Its reasons
// are not escaped; the last one is the rest of the file.
//
// If the server died, the next server adds lines after the segments' lines, instead of
// `other-records` and `skipped`: for files that were not listed, and for files that differ from
// their line. They are not part of the receipt.
//   unfinished file=segment-000002.part bytes=3 crc32=ccddeeff
//   unfinished file=segment-000003.zst.part bytes=999 crc32=ccddeeff stored=99
//   damaged file=segment-000001 reason=it%20has%208%20bytes%20instead%20of%209

// One stored segment. The algorithm and its parameters are those of the segment's first record.
struct SegmentSummary {
  std::uint64_t number = 0;
  std::uint64_t records = 0;
  std::uint64_t bytes = 0;
  std::uint32_t algorithm = 0;
  std::uint32_t parameters[3] = {};
  std::uint32_t checksum = 0;
  std::string file;          // empty: the segment holds no data
  std::uint64_t stored = 0;  // bytes of the file if it is compressed, otherwise 0

  bool operator==(const SegmentSummary&) const = default;
};

// The name of the manifest in a stream's folder.
constexpr char kManifest[] = "manifest";

// The ending of a file's name while the file is not finished.
constexpr char kUnfinished[] = ".part";

// The name of a segment's file begins with this; segmentName() returns the whole name of one that
// is not compressed, and segmentNumberIn() the number in the name of a file that is finished or
// not, compressed or not, or nothing for the name of another file.
constexpr char kSegmentPrefix[] = "segment-";
std::string segmentName(std::uint64_t number);
std::optional<std::uint64_t> segmentNumberIn(const std::string& name);

// The ending of a compressed file's name, before kUnfinished.
constexpr char kCompressed[] = ".zst";
bool isCompressed(std::string_view fileName);

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
  std::uint64_t stored = 0;  // as in SegmentSummary

  bool operator==(const UnfinishedFile&) const = default;
};

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

// A file that differs from its line.
struct DamagedFile {
  std::string file;
  std::string reason;

  bool operator==(const DamagedFile&) const = default;
};

std::string textOf(const DamagedFile& damaged, int format);
std::string skippedLine(std::uint64_t skipped);
std::optional<DamagedFile> parseDamaged(const std::string& line, int format);
std::optional<std::uint64_t> parseSkipped(const std::string& line);

// How a stream ended.
struct StreamEnding {
  orvane::Receipt receipt;
  std::optional<UtcTime> ended;  // none in format 1
  std::string reason;

  bool operator==(const StreamEnding&) const = default;
};

// The last lines, from the receipt to the reason; whether a line is the reason; and two of them.
std::vector<std::string> linesOf(const StreamEnding& ending, int format);
bool isReason(const std::string& line);
std::optional<std::string> parseReason(const std::string& line, int format);
std::optional<UtcTime> parseEnded(const std::string& line);

// The last line of format 2; `checksum` is that of all lines before it.
std::string checksumLine(std::uint32_t checksum);

std::string checksumText(std::uint32_t checksum);

}  // namespace tool
