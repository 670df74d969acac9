#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace tool {

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

// Returns the name of a segment's file.
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

// These write a line of the manifest and read it. The parsers return nothing unless the line is
// exactly what textOf() writes.
std::string textOf(const SegmentSummary& segment);
std::string textOf(const OtherRecords& others);
std::string textOf(const UnfinishedFile& unfinished);
std::optional<SegmentSummary> parseSegment(const std::string& line);
std::optional<OtherRecords> parseOthers(const std::string& line);
std::optional<UnfinishedFile> parseUnfinished(const std::string& line);

std::string checksumText(std::uint32_t checksum);

}  // namespace tool
