#include "stream_folder.hpp"

#include <algorithm>
#include <utility>
#include <vector>

#include "server_status.hpp"

namespace orvaned {

using orvane::pvk_shm_message_t;
using orvane::ShmBatch;

namespace {

constexpr char kUnfinished[] = ".part";

// Six digits at least, so that a listing shows the segments of all but the longest streams in
// order.
std::string segmentName(std::uint64_t number) {
  const std::string digits = std::to_string(number);
  return "segment-" + std::string(6 - std::min<std::size_t>(digits.size(), 6), '0') + digits;
}

OutputFile::Bytes dataOf(const ShmBatch::Entry& entry) {
  return {entry.data, entry.header.len};
}

}  // namespace

void appendRecord(OutputFile& file, const ShmBatch::Entry& entry) {
  std::vector<unsigned char> header(pvk_shm_message_t::getSerializedSize());
  entry.header.serializeToBuffer(header.data());
  file.append(header, dataOf(entry));
}

StreamFolder::Segment::Segment(const std::string& folder, const pvk_shm_message_t& first)
    : name(segmentName(first.segmentNo)), file(folder + "/" + name + kUnfinished) {
  summary.number = first.segmentNo;
  summary.algorithm = first.segAlg;
  summary.parameters[0] = first.segParam1;
  summary.parameters[1] = first.segParam2;
  summary.parameters[2] = first.segParam3;
}

StreamFolder::StreamFolder(std::string folderPath, const std::string& queue,
                           const std::string& stream)
    : path(std::move(folderPath)), manifest(path, queue, stream), other(path + "/other-records") {
  summary.receipt.stream = stream;
}

void StreamFolder::storeSegmentData(const ShmBatch::Entry& entry) {
  if (!segment) {
    segment.emplace(path, entry.header);
  }
  segment->file.append({}, dataOf(entry));
}

void StreamFolder::endSegment(const pvk_shm_message_t& header) {
  if (!segment) {
    segment.emplace(path, header);
  }
  finishSegment();
}

void StreamFolder::storeOther(const ShmBatch::Entry& entry) {
  appendRecord(other, entry);
}

void StreamFolder::flush() {
  if (segment) {
    segment->file.flush();
  }
  other.flush();
  manifest.flush();
}

void StreamFolder::end(const std::string& how, const std::string& reason, std::uint64_t skipped) {
  summary.receipt.end = how;
  summary.reason = reason;
  summary.skipped = skipped;
  try {
    flush();
  } catch (const Ox_ErrnoException&) {
    if (how != tool::kBroken) {
      throw;
    }
  }
  if (segment) {
    how == tool::kClosed ? finishSegment() : abandonSegment();
  }
  // Once only: what there is of a manifest that could not be written must not be continued.
  if (!std::exchange(manifestTried, true)) {
    finishManifest();
  }
}

void StreamFolder::finishSegment() {
  segment->file.finish(path + "/" + segment->name);
  list(segment->name);
}

void StreamFolder::abandonSegment() {
  list(segment->name + kUnfinished);
}

// Ends the use of the segment; its file has this name.
void StreamFolder::list(std::string fileName) {
  SegmentSummary ended = segment->summary;
  ended.records = segment->file.records();
  ended.bytes = segment->file.bytes();
  segment.reset();
  if (ended.bytes > 0) {
    ended.file = std::move(fileName);
    ++summary.receipt.segments;
  }
  summary.receipt.records += ended.records;
  summary.receipt.bytes += ended.bytes;
  manifest.add(ended);
}

void StreamFolder::finishManifest() {
  summary.otherRecords = other.records();
  summary.otherBytes = other.bytes() - other.records() * pvk_shm_message_t::getSerializedSize();
  summary.receipt.records += summary.otherRecords;
  summary.receipt.bytes += summary.otherBytes;
  manifest.finish(summary);
}

}  // namespace orvaned
