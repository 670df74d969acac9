#include "orvane/writer.hpp"
#include "writer/limits.hpp"
#include "writer/record_steps.hpp"

namespace orvane {

unsigned long ShmWriter::getMaxSegmentSize() {
  return kMaxSegmentSize;
}

void ShmWriter::setSegmentAlg(orvane_seg_state_t state, unsigned long param1, unsigned long param2,
                              unsigned long param3) {
  RecordSteps::setSegmentAlg(*this, state, param1, param2, param3);
}

void ShmWriter::writeSegment(const unsigned char* data, unsigned long length) {
  RecordSteps::writeSegment(*this, data, length);
}

void ShmWriter::endSegment() {
  RecordSteps::endSegment(*this);
}

}  // namespace orvane
