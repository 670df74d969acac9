#include "store/manifest_file.hpp"

#include <span>

#include "store_format/checksum.hpp"

namespace orvaned {
namespace {

OutputFile::Bytes bytesOf(const std::string& text) {
  return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

}  // namespace

void count(orvane::Receipt& receipt, const SegmentSummary& segment) {
  receipt.records += segment.records;
  receipt.bytes += segment.bytes;
  receipt.segments += segment.bytes > 0 ? 1 : 0;
}

void ManifestFile::begin(const StreamHead& head) {
  format = head.format;
  for (const std::string& first : linesOf(head)) {
    line(first);
  }
}

void ManifestFile::resume(const ManifestPart& part) {
  file.resume(part.bytes);
  format = part.format;
  checksum = part.checksum;
}

void ManifestFile::addDamaged(const std::string& name, const std::string& reason) {
  line(textOf(tool::DamagedFile{name, reason}, format));
}

void ManifestFile::catchUp(const std::string& addedLine) {
  file.catchUp();
  if (!addedLine.empty()) {
    counted(addedLine);
  }
}

void ManifestFile::finish(const StreamSummary& stream) {
  line(textOf(stream.others));
  line(tool::skippedLine(stream.skipped));
  finish(stream.receipt, stream.reason);
}

void ManifestFile::finish(const orvane::Receipt& receipt, const std::string& reason) {
  const bool isFirst = format == tool::kFirstFormat;
  const auto ended = isFirst ? std::nullopt : std::optional(tool::utcNow());
  for (const std::string& last : linesOf(tool::StreamEnding{receipt, ended, reason}, format)) {
    line(last);
  }
  if (!isFirst) {
    line(tool::checksumLine(checksum));
  }
  finish();
}

void ManifestFile::line(const std::string& text) {
  const std::string withEnd = counted(text);
  file.append(bytesOf(withEnd));
}

// Adds the line to the checksum, and returns it with its end.
std::string ManifestFile::counted(const std::string& text) {
  std::string withEnd = text + "\n";
  checksum = tool::checksumOf(bytesOf(withEnd), checksum);
  return withEnd;
}

}  // namespace orvaned
