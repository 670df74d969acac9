#include "store_format/manifest_reader.hpp"

#include <unistd.h>

#include <cerrno>
#include <orvane/orvane.hpp>

namespace tool {

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
  returnedBytes += end + 1;
  return line;
}

std::vector<std::string> linesOfManifest(const std::string& path) {
  ManifestReader manifest(openStored(path));
  std::vector<std::string> lines;
  while (auto line = manifest.next()) {
    lines.push_back(std::move(*line));
  }
  if (manifest.error() != 0) {
    failToRead(path, manifest.error());
  }
  if (!manifest.rest().empty()) {
    lines.push_back(manifest.rest());
  }
  return lines;
}

ListedFile fileOf(const SegmentSummary& segment) {
  return {segment.file, {segment.bytes, segment.checksum}};
}

ListedFile fileOf(const OtherRecords& others) {
  const std::uint64_t headers = others.records * orvane::pvk_shm_message_t::getSerializedSize();
  return {kOtherRecords, {headers + others.bytes, others.checksum}};
}

ListedFile fileOf(const UnfinishedFile& unfinished) {
  return {unfinished.file, {unfinished.bytes, unfinished.checksum}};
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
