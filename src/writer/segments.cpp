#include "orvane/writer.hpp"
#include "ox/trace.hpp"
#include "records/failure.hpp"
#include "writer/limits.hpp"

namespace orvane {

unsigned long ShmWriter::getMaxSegmentSize() {
  return kMaxSegmentSize;
}

void ShmWriter::setSegmentAlg(orvane_seg_state_t state, unsigned long param1, unsigned long param2,
                              unsigned long param3) {
  segAlg = state;
  segParam1 = param1;
  segParam2 = param2;
  segParam3 = param3;
}

void ShmWriter::fillSegmentFields() {
  header.segAlg = static_cast<std::uint32_t>(segAlg);
  header.segParam1 = static_cast<std::uint32_t>(segParam1);
  header.segParam2 = static_cast<std::uint32_t>(segParam2);
  header.segParam3 = static_cast<std::uint32_t>(segParam3);
}

void ShmWriter::writeSegment(const unsigned char* data, unsigned long length) {
  const AutoTrace scope("writeSegment");
  if (!isOpen) {
    fail(kStatusNotOpen, "Could not write segment data because ShmWriter is not open");
  }
  if (segAlg != kOrvaneSegBounded && segAlg != kOrvaneSegUnbounded) {
    fail(kStatusWrongAlgorithm,
         "Could not write segment data because wrong algorithm has been set");
  }
  // Dormant: nothing clears segmentFirstWrite, so a stream may mix states. The check and its
  // message stand ready for a server that cannot take a mixture.
  if (segmentFirstWrite) {
    lastSegmentState = segAlg;
  } else if (segAlg != lastSegmentState) {
    fail(kStatusNotHomogeneous, "Could not write segment data for sequence ", header.seqNo + 1,
         " because segment states are not homogeneous (",
         "last state=", static_cast<std::int32_t>(lastSegmentState),
         ", current state=", static_cast<std::int32_t>(segAlg), ")");
  }
  fillSegmentFields();
  header.seqNo += 1;
  header.type = kRecordSegmentData;
  header.len = static_cast<std::uint32_t>(length);
  if (header.len != 0) {
    header.segmentDone = 0;
  }
  write_data(&header, data, timeout, false);
}

void ShmWriter::endSegment() {
  const AutoTrace scope("endSegment");
  if (!isOpen) {
    fail(kStatusNotOpen, "Could not end segment data because ShmWriter is not open");
  }
  if (lastMessageType == kRecordEndOfSegment) {
    if (TraceOn()) {
      __Trace("%s: ignoring redundant %u header", "endSegment", lastMessageType);
    }
    return;
  }
  endWith(kRecordEndOfSegment, timeout, false);
}

// Appends an end of segment, a close or a stop. Each of them also ends a segment that holds data.
void ShmWriter::endWith(std::uint32_t type, unsigned int sendTimeout, bool flush) {
  header.seqNo += 1;
  header.type = type;
  header.len = 0;
  fillSegmentFields();
  write_data(&header, nullptr, sendTimeout, flush);
  if (header.segmentDone == 0) {
    header.segmentNo += 1;
    header.segmentDone = 1;
  }
}

}  // namespace orvane
