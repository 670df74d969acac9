#include "store_format/manifest_lines.hpp"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

namespace tool {
namespace {

constexpr char kNoFile[] = "-";
constexpr char kReason[] = "reason=";

}  // namespace

// The name has at least six digits, so that listings show up to a million segments in order.
std::string segmentName(std::uint64_t number) {
  const std::string digits = std::to_string(number);
  return kSegmentPrefix + std::string(6 - std::min<std::size_t>(digits.size(), 6), '0') + digits;
}

std::string checksumText(std::uint32_t checksum) {
  char text[9] = {};
  std::snprintf(text, sizeof(text), "%08" PRIx32, checksum);
  return text;
}

std::array<std::string, 3> firstLines(const std::string& queue, const std::string& stream) {
  return {"format=1", "queue=" + queue, "stream=" + stream};
}

std::string textOf(const SegmentSummary& segment) {
  const auto& parameters = segment.parameters;
  return "segment number=" + std::to_string(segment.number) +
         " records=" + std::to_string(segment.records) + " bytes=" + std::to_string(segment.bytes) +
         " algorithm=" + std::to_string(segment.algorithm) +
         " parameters=" + std::to_string(parameters[0]) + "," + std::to_string(parameters[1]) +
         "," + std::to_string(parameters[2]) + " crc32=" + checksumText(segment.checksum) +
         " file=" + (segment.file.empty() ? kNoFile : segment.file);
}

std::string textOf(const OtherRecords& others) {
  return std::string(kOtherRecords) + "=" + std::to_string(others.records) +
         " bytes=" + std::to_string(others.bytes) + " crc32=" + checksumText(others.checksum);
}

std::string textOf(const UnfinishedFile& unfinished) {
  return "unfinished file=" + unfinished.file + " bytes=" + std::to_string(unfinished.bytes) +
         " crc32=" + checksumText(unfinished.checksum);
}

// scanf() accepts too much, and does not report numbers that are too large. So a line is valid
// exactly if writing what was read gives the same line.
std::optional<SegmentSummary> parseSegment(const std::string& line) {
  SegmentSummary segment;
  auto& parameters = segment.parameters;
  int nameAt = 0;
  std::sscanf(line.c_str(),
              "segment number=%" SCNu64 " records=%" SCNu64 " bytes=%" SCNu64 " algorithm=%" SCNu32
              " parameters=%" SCNu32 ",%" SCNu32 ",%" SCNu32 " crc32=%" SCNx32 " file=%n",
              &segment.number, &segment.records, &segment.bytes, &segment.algorithm, &parameters[0],
              &parameters[1], &parameters[2], &segment.checksum, &nameAt);
  segment.file = line.substr(static_cast<std::size_t>(nameAt));
  if (segment.file == kNoFile) {
    segment.file.clear();
  }
  const std::string name = segmentName(segment.number);
  const bool nameFits =
      segment.file.empty() || segment.file == name || segment.file == name + kUnfinished;
  return nameFits && textOf(segment) == line ? std::optional(segment) : std::nullopt;
}

std::optional<OtherRecords> parseOthers(const std::string& line) {
  OtherRecords others;
  std::sscanf(line.c_str(), "other-records=%" SCNu64 " bytes=%" SCNu64 " crc32=%" SCNx32,
              &others.records, &others.bytes, &others.checksum);
  return textOf(others) == line ? std::optional(others) : std::nullopt;
}

std::optional<UnfinishedFile> parseUnfinished(const std::string& line) {
  UnfinishedFile unfinished;
  char name[64] = {};
  std::sscanf(line.c_str(), "unfinished file=%63s bytes=%" SCNu64 " crc32=%" SCNx32, name,
              &unfinished.bytes, &unfinished.checksum);
  unfinished.file = name;
  const bool isName = unfinished.file.find('/') == std::string::npos;
  return isName && textOf(unfinished) == line ? std::optional(unfinished) : std::nullopt;
}

bool listsSegmentFile(const std::string& line) {
  return line.starts_with("segment ") && !line.ends_with(std::string(" file=") + kNoFile);
}

bool listsOtherRecords(const std::string& line) {
  const std::string start = std::string(kOtherRecords) + "=";
  return line.starts_with(start) && !line.starts_with(start + "0 ");
}

bool listsUnfinishedFile(const std::string& line) {
  return line.starts_with("unfinished ");
}

std::string damagedLine(const std::string& file, const std::string& reason) {
  return "damaged file=" + file + " " + kReason + reason;
}

std::string skippedLine(std::uint64_t skipped) {
  return "skipped=" + std::to_string(skipped);
}

std::array<std::string, 5> lastLines(const orvane::Receipt& receipt, const std::string& reason) {
  return {textOf(receipt), "records=" + std::to_string(receipt.records),
          "bytes=" + std::to_string(receipt.bytes), "end=" + textOf(receipt.end), kReason + reason};
}

bool isReason(const std::string& line) {
  return line.starts_with(kReason);
}

}  // namespace tool
