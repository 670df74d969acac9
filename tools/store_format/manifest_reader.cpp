#include "store_format/manifest_reader.hpp"

#include <unistd.h>

#include <cerrno>
#include <orvane/orvane.hpp>
#include <stdexcept>

#include "store_format/checksum.hpp"
#include "store_format/stream_head.hpp"

namespace tool {
namespace {

// Returns the format in a manifest's first line, 0 if it is another line. Throws std::runtime_error
// for one that this release does not know.
int parseFormat(const std::string& line, const std::string& path) {
  constexpr std::string_view kName = "format=";
  const std::string text = line.starts_with(kName) ? line.substr(kName.size()) : "";
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) {
    return 0;
  }
  for (const int format : {kFirstFormat, kManifestFormat}) {
    if (text == std::to_string(format)) {
      return format;
    }
  }
  throw std::runtime_error("format " + text + " is not known: " + path +
                           " was written by another release: use that one to read it");
}

}  // namespace

std::optional<std::string> ManifestReader::next() {
  while (buffered.find('\n') == std::string::npos) {
    const ssize_t size = read(file.get(), block.data(), block.size());
    if (size <= 0) {
      readError = size < 0 ? errno : 0;
      return std::nullopt;
    }
    buffered.append(block.data(), static_cast<std::size_t>(size));
  }
  const std::size_t end = buffered.find('\n');
  std::string line = buffered.substr(0, end);
  buffered.erase(0, end + 1);
  count(line);
  return line;
}

void ManifestReader::count(const std::string& line) {
  if (returnedBytes == 0) {
    knownFormat = parseFormat(line, path);
  }
  const std::string whole = line + "\n";
  returnedBytes += whole.size();
  checksumBefore = allChecksum;
  allChecksum =
      checksumOf({reinterpret_cast<const unsigned char*>(whole.data()), whole.size()}, allChecksum);
  lastLine = line;
}

std::string ManifestReader::fault() const {
  if (knownFormat == 0) {
    return "its first line does not name its format";
  }
  if (!buffered.empty()) {
    return "its last line is incomplete";
  }
  if (knownFormat == kFirstFormat || lastLine == checksumLine(checksumBefore)) {
    return "";
  }
  const std::string right = checksumText(checksumBefore);
  return lastLine.size() == checksumLine(0).size() && lastLine.starts_with("crc32=")
             ? "the checksum of its lines is " + right + " instead of " + lastLine.substr(6)
             : "its last line is not the checksum of the others, " + right;
}

ListedFile fileOf(const SegmentSummary& segment) {
  return {segment.file, {segment.bytes, segment.checksum, segment.stored}};
}

ListedFile fileOf(const OtherRecords& others) {
  const std::uint64_t headers = others.records * orvane::pvk_shm_message_t::getSerializedSize();
  return {kOtherRecords, {headers + others.bytes, others.checksum}};
}

ListedFile fileOf(const UnfinishedFile& unfinished) {
  return {unfinished.file, {unfinished.bytes, unfinished.checksum, unfinished.stored}};
}

std::optional<ListedFile> fileIn(const std::string& line) {
  const auto listed = [](const auto& parsed) { return parsed ? fileOf(*parsed) : ListedFile(); };
  if (listsSegmentFile(line)) {
    return listed(parseSegment(line));
  }
  if (listsOtherRecords(line)) {
    return listed(parseOthers(line));
  }
  if (listsUnfinishedFile(line)) {
    return listed(parseUnfinished(line));
  }
  return std::nullopt;
}

}  // namespace tool
