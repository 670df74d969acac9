#include "manifest.hpp"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

namespace orvaned {
namespace {

constexpr char kNoFile[] = "-";

}  // namespace

// Six digits at least, so that a listing shows the segments of all but the longest streams in
// order.
std::string segmentName(std::uint64_t number) {
  const std::string digits = std::to_string(number);
  return "segment-" + std::string(6 - std::min<std::size_t>(digits.size(), 6), '0') + digits;
}

void count(tool::Receipt& receipt, const SegmentSummary& segment) {
  receipt.records += segment.records;
  receipt.bytes += segment.bytes;
  receipt.segments += segment.bytes > 0 ? 1 : 0;
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
         " file=" + (segment.file.empty() ? kNoFile : segment.file);
}

std::string textOf(const OtherRecords& others) {
  return std::string(kOtherRecords) + "=" + std::to_string(others.records) +
         " bytes=" + std::to_string(others.bytes) + " crc32=" + checksumText(others.checksum);
}

// scanf() is lenient, and says nothing of numbers that are too large. So the line is one exactly
// when it is written the same again.
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

Manifest::Manifest(const std::string& folder, Sync sync)
    : path(folder + "/manifest"), file(path + kUnfinished, sync) {}

void Manifest::begin(const std::string& queue, const std::string& stream) {
  line("format=1");
  line("queue=" + queue);
  line("stream=" + stream);
}

void Manifest::addUnfinished(const std::string& name, std::uint64_t bytes, std::uint32_t checksum) {
  line("unfinished file=" + name + " bytes=" + std::to_string(bytes) +
       " crc32=" + checksumText(checksum));
}

void Manifest::addDamaged(const std::string& name, const std::string& reason) {
  line("damaged file=" + name + " reason=" + reason);
}

void Manifest::finish(const StreamSummary& stream) {
  line(textOf(stream.others));
  line("skipped=" + std::to_string(stream.skipped));
  finish(stream.receipt, stream.reason);
}

void Manifest::finish(const tool::Receipt& receipt, const std::string& reason) {
  line(textOf(receipt));
  line("records=" + std::to_string(receipt.records));
  line("bytes=" + std::to_string(receipt.bytes));
  line("end=" + receipt.end);
  line("reason=" + reason);
  finish();
}

void Manifest::line(const std::string& text) {
  const std::string withEnd = text + "\n";
  file.append({reinterpret_cast<const unsigned char*>(withEnd.data()), withEnd.size()});
}

}  // namespace orvaned
