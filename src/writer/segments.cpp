#include "orvane/writer.hpp"
#include "ox/trace.hpp"
#include "writer/limits.hpp"
#include "writer/record_steps.hpp"

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

void ShmWriter::writeSegment(const unsigned char* data, unsigned long length) {
  const AutoTrace scope("writeSegment");
  RecordSteps::requireSegment(*this);
  RecordSteps::fillSegmentData(*this, length);
  write_data(&header, data, timeout, false);
}

void ShmWriter::endSegment() {
  RecordSteps::endSegment(*this);
}

}  // namespace orvane
