#include "store/stream_folder.hpp"

#include <orvane/server_status.hpp>
#include <utility>
#include <vector>

namespace orvaned {

using orvane::pvk_shm_message_t;
using orvane::ShmBatch;

namespace {

OutputFile::Bytes dataOf(const ShmBatch::Entry& entry) {
  return {entry.data, entry.header.len};
}

}  // namespace

void appendRecord(OutputFile& file, const ShmBatch::Entry& entry) {
  std::vector<unsigned char> header(pvk_shm_message_t::getSerializedSize());
  entry.header.serializeToBuffer(header.data());
  file.append(header, dataOf(entry));
}

StreamFolder::Segment::Segment(StreamDirectory* folder, const pvk_shm_message_t& first, Sync sync,
                               tool::Compressor* compressor)
    : file(folder, segmentName(first.segmentNo), sync, compressor) {
  summary.number = first.segmentNo;
  summary.algorithm = first.segAlg;
  summary.parameters[0] = first.segParam1;
  summary.parameters[1] = first.segParam2;
  summary.parameters[2] = first.segParam3;
}

SegmentSummary StreamFolder::Segment::line(std::string fileName) const {
  SegmentSummary line = summary;
  line.records = file.records();
  line.bytes = file.bytes();
  line.checksum = file.checksum();
  line.stored = file.stored();
  if (line.bytes > 0) {
    line.file = std::move(fileName);
  }
  return line;
}

StreamFolder::StreamFolder(std::unique_ptr<StreamDirectory> folder, const StreamHead& head,
                           Sync sync, tool::Compressor* compressor)
    : folder(std::move(folder)),
      sync(sync),
      compressor(compressor),
      manifest(this->folder.get(), sync),
      other(this->folder.get(), kOtherRecords, sync) {
  manifest.begin(head);
  summary.receipt.stream = head.stream;
}

void StreamFolder::storeSegmentData(const ShmBatch::Entry& entry) {
  begin(entry.header);
  segment->file.append(dataOf(entry));
}

void StreamFolder::endSegment(const pvk_shm_message_t& header) {
  begin(header);
  segment->file.end();
  awaitFinish();
  if (!startFinish()) {
    finishSegment();
  }
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
  takeFinishResult(false);
}

void StreamFolder::end(orvane::StreamEnd how, const std::string& reason, std::uint64_t skipped) {
  summary.receipt.end = how;
  for (const auto step : {&StreamFolder::settle, &StreamFolder::awaitFinish}) {
    try {
      (this->*step)();
    } catch (const Ox_ErrnoException&) {
      if (how != orvane::StreamEnd::broken) {
        throw;
      }
    }
  }
  if (segment) {
    how == orvane::StreamEnd::closed ? finishSegment() : abandon(*std::exchange(segment, nullptr));
  }
  // Only once: a manifest whose writing failed must not be continued.
  if (!std::exchange(manifestTried, true)) {
    finishManifest(reason, skipped);
  }
}

void StreamFolder::begin(const pvk_shm_message_t& first) {
  if (!segment) {
    segment = std::make_unique<Segment>(folder.get(), first, sync, compressor);
  }
}

void StreamFolder::settle() {
  if (segment) {
    segment->file.end();
    segment->file.settle();
  }
  other.settle();
  manifest.flush();
}

// The manifest's file must hold all of its lines: the broker adds the next one.
bool StreamFolder::startFinish() {
  if (sync != Sync::segment || !folder || !folder->finishesInBackground()) {
    return false;
  }
  segment->file.flush();
  manifest.flush();
  if (segment->file.bytes() == 0) {
    return false;
  }
  const std::string name = segment->file.name();
  folder->startFinish(name, textOf(segment->line(name)));
  finishing = std::move(segment);
  return true;
}

void StreamFolder::takeFinishResult(bool wait) {
  const auto result = finishing ? folder->finishResult(wait) : std::nullopt;
  if (!result) {
    return;
  }
  const auto ended = std::move(finishing);
  const SegmentSummary line = ended->line(ended->file.name());
  manifest.catchUp(result->listed ? textOf(line) : "");
  if (result->listed) {
    count(summary.receipt, line);
  } else {
    abandon(*ended);
  }
  if (!result->error.empty()) {
    throw Ox_ErrnoException(orvane::kStoreFailed, result->error, "");
  }
}

// The manifest has its line before the file gets its final name, so that every file with a final
// name can be checked.
void StreamFolder::finishSegment() {
  segment->file.settle();
  const auto ended = std::move(segment);
  list(*ended, ended->file.name());
  manifest.settle();
  ended->file.finish();
}

void StreamFolder::abandon(const Segment& ended) {
  list(ended, ended.file.name() + kUnfinished);
}

void StreamFolder::list(const Segment& ended, std::string fileName) {
  const SegmentSummary line = ended.line(std::move(fileName));
  count(summary.receipt, line);
  manifest.add(line);
}

void StreamFolder::finishManifest(const std::string& reason, std::uint64_t skipped) {
  OtherRecords& others = summary.others;
  others.records = other.records();
  others.bytes = other.bytes() - other.records() * pvk_shm_message_t::getSerializedSize();
  others.checksum = other.checksum();
  summary.receipt.records += others.records;
  summary.receipt.bytes += others.bytes;
  summary.skipped = skipped;
  summary.reason = reason;
  manifest.finish(summary);
}

}  // namespace orvaned
