#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace tool {

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

// A file that a server left behind which had not listed it before it died.
struct UnfinishedFile {
  std::string file;
  std::uint64_t bytes = 0;
  std::uint32_t checksum = 0;

  bool operator==(const UnfinishedFile&) const = default;
};

// A line of the manifest and back; nothing when the line is not exactly one.
std::string textOf(const SegmentSummary& segment);
std::string textOf(const OtherRecords& others);
std::string textOf(const UnfinishedFile& unfinished);
std::optional<SegmentSummary> parseSegment(const std::string& line);
std::optional<OtherRecords> parseOthers(const std::string& line);
std::optional<UnfinishedFile> parseUnfinished(const std::string& line);

std::string checksumText(std::uint32_t checksum);

}  // namespace tool
