#include "store_format/manifest_lines.hpp"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <orvane/escaped_text.hpp>

#include "store_format/stream_head.hpp"

namespace tool {
namespace {

constexpr char kNoFile[] = "-";
constexpr std::string_view kFile = " file=";
constexpr char kReason[] = "reason=";
constexpr char kDamaged[] = "damaged file=";
constexpr char kSkipped[] = "skipped=";
constexpr char kEnded[] = "ended=";

std::string reasonIn(const std::string& reason, int format) {
  return kReason + (format == kFirstFormat ? reason : orvane::escaped(reason));
}

std::optional<std::string> parseReasonText(const std::string& text, int format) {
  return format == kFirstFormat ? std::optional(text) : orvane::unescaped(text);
}

// Only the line of a compressed file has this.
std::string storedText(std::uint64_t stored) {
  return stored == 0 ? "" : " stored=" + std::to_string(stored);
}

}  // namespace

// The name has at least six digits, so that listings show up to a million segments in order.
std::string segmentName(std::uint64_t number) {
  const std::string digits = std::to_string(number);
  return kSegmentPrefix + std::string(6 - std::min<std::size_t>(digits.size(), 6), '0') + digits;
}

std::optional<std::uint64_t> segmentNumberIn(const std::string& name) {
  std::uint64_t number = 0;
  std::sscanf(name.c_str(), "segment-%" SCNu64, &number);
  const std::string plain = segmentName(number);
  for (const std::string& finished : {plain, plain + kCompressed}) {
    if (name == finished || name == finished + kUnfinished) {
      return number;
    }
  }
  return std::nullopt;
}

bool isCompressed(std::string_view fileName) {
  const std::string_view unfinished = kUnfinished;
  if (fileName.ends_with(unfinished)) {
    fileName.remove_suffix(unfinished.size());
  }
  return fileName.ends_with(kCompressed);
}

std::string checksumText(std::uint32_t checksum) {
  char text[9] = {};
  std::snprintf(text, sizeof(text), "%08" PRIx32, checksum);
  return text;
}

std::string textOf(const SegmentSummary& segment) {
  const auto& parameters = segment.parameters;
  return "segment number=" + std::to_string(segment.number) +
         " records=" + std::to_string(segment.records) + " bytes=" + std::to_string(segment.bytes) +
         " algorithm=" + std::to_string(segment.algorithm) +
         " parameters=" + std::to_string(parameters[0]) + "," + std::to_string(parameters[1]) +
         "," + std::to_string(parameters[2]) + " crc32=" + checksumText(segment.checksum) +
         storedText(segment.stored) + std::string(kFile) +
         (segment.file.empty() ? kNoFile : segment.file);
}

std::string textOf(const OtherRecords& others) {
  return std::string(kOtherRecords) + "=" + std::to_string(others.records) +
         " bytes=" + std::to_string(others.bytes) + " crc32=" + checksumText(others.checksum);
}

std::string textOf(const UnfinishedFile& unfinished) {
  return "unfinished file=" + unfinished.file + " bytes=" + std::to_string(unfinished.bytes) +
         " crc32=" + checksumText(unfinished.checksum) + storedText(unfinished.stored);
}

// scanf() accepts too much, and does not report numbers that are too large. So a line is valid
// exactly if writing what was read gives the same line.
std::optional<SegmentSummary> parseSegment(const std::string& line) {
  SegmentSummary segment;
  auto& parameters = segment.parameters;
  std::sscanf(line.c_str(),
              "segment number=%" SCNu64 " records=%" SCNu64 " bytes=%" SCNu64 " algorithm=%" SCNu32
              " parameters=%" SCNu32 ",%" SCNu32 ",%" SCNu32 " crc32=%" SCNx32 " stored=%" SCNu64,
              &segment.number, &segment.records, &segment.bytes, &segment.algorithm, &parameters[0],
              &parameters[1], &parameters[2], &segment.checksum, &segment.stored);
  const std::size_t fileAt = line.rfind(kFile);
  if (fileAt == std::string::npos) {
    return std::nullopt;
  }
  segment.file = line.substr(fileAt + kFile.size());
  if (segment.file == kNoFile) {
    segment.file.clear();
  }
  const std::string name = segmentName(segment.number) + (segment.stored > 0 ? kCompressed : "");
  const bool nameFits = segment.file.empty()
                            ? segment.stored == 0
                            : segment.file == name || segment.file == name + kUnfinished;
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
  std::sscanf(line.c_str(),
              "unfinished file=%63s bytes=%" SCNu64 " crc32=%" SCNx32 " stored=%" SCNu64, name,
              &unfinished.bytes, &unfinished.checksum, &unfinished.stored);
  unfinished.file = name;
  const bool isName = unfinished.file.find('/') == std::string::npos &&
                      isCompressed(unfinished.file) == (unfinished.stored > 0);
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

std::string textOf(const DamagedFile& damaged, int format) {
  return kDamaged + damaged.file + " " + reasonIn(damaged.reason, format);
}

std::string skippedLine(std::uint64_t skipped) {
  return kSkipped + std::to_string(skipped);
}

std::optional<DamagedFile> parseDamaged(const std::string& line, int format) {
  const std::string beforeReason = std::string(" ") + kReason;
  const std::size_t end = line.find(beforeReason);
  if (!line.starts_with(kDamaged) || end == std::string::npos) {
    return std::nullopt;
  }
  const std::size_t start = std::string(kDamaged).size();
  const auto reason = parseReasonText(line.substr(end + beforeReason.size()), format);
  return reason ? std::optional(DamagedFile{line.substr(start, end - start), *reason})
                : std::nullopt;
}

std::optional<std::uint64_t> parseSkipped(const std::string& line) {
  std::uint64_t skipped = 0;
  std::sscanf(line.c_str(), "skipped=%" SCNu64, &skipped);
  return skippedLine(skipped) == line ? std::optional(skipped) : std::nullopt;
}

std::vector<std::string> linesOf(const StreamEnding& ending, int format) {
  const orvane::Receipt& receipt = ending.receipt;
  std::vector<std::string> lines = {textOf(receipt), "records=" + std::to_string(receipt.records),
                                    "bytes=" + std::to_string(receipt.bytes),
                                    "end=" + textOf(receipt.end)};
  if (ending.ended && format != kFirstFormat) {
    lines.push_back(kEnded + utcText(*ending.ended));
  }
  lines.push_back(reasonIn(ending.reason, format));
  return lines;
}

std::string checksumLine(std::uint32_t checksum) {
  return "crc32=" + checksumText(checksum);
}

bool isReason(const std::string& line) {
  return line.starts_with(kReason);
}

std::optional<std::string> parseReason(const std::string& line, int format) {
  return isReason(line) ? parseReasonText(line.substr(std::string(kReason).size()), format)
                        : std::nullopt;
}

std::optional<UtcTime> parseEnded(const std::string& line) {
  return line.starts_with(kEnded) ? parseUtc(line.substr(std::string(kEnded).size()))
                                  : std::nullopt;
}

}  // namespace tool
