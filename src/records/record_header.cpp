#include <ostream>

#include "orvane/records.hpp"
#include "records/batch_layout.hpp"

namespace orvane {

unsigned long pvk_shm_message_t::getSerializedSize() {
  return layout::kHeaderSize;
}

unsigned char* pvk_shm_message_t::serializeToBuffer(unsigned char* p) const {
  layout::writeHeader(p, *this);
  return p + layout::kHeaderSize;
}

const unsigned char* pvk_shm_message_t::deserializeFromBuffer(const unsigned char* p) {
  layout::readHeader(*this, p);
  if (magic != layout::kHeaderMagicWord) {
    layout::failCorruptHeader(magic);
  }
  return p + layout::kHeaderSize;
}

// The sequence number is first, because readers of these lines look for it; tools rely on this
// order.
std::ostream& operator<<(std::ostream& stream, const pvk_shm_message_t& header) {
  return stream << "(" << header.seqNo << "," << header.type << "," << header.len << ","
                << header.segAlg << "," << header.segmentNo << "," << header.segmentDone << ","
                << header.segParam1 << "," << header.segParam2 << "," << header.segParam3 << ","
                << header.magic << ")";
}

bool operator==(const pvk_shm_message_t& a, const pvk_shm_message_t& b) {
  return a.type == b.type && a.len == b.len && a.seqNo == b.seqNo && a.segmentNo == b.segmentNo &&
         a.segmentDone == b.segmentDone && a.segAlg == b.segAlg && a.segParam1 == b.segParam1 &&
         a.segParam2 == b.segParam2 && a.segParam3 == b.segParam3 && a.magic == b.magic;
}

bool operator!=(const pvk_shm_message_t& a, const pvk_shm_message_t& b) {
  return !(a == b);
}

}  // namespace orvane
