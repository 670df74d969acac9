#include "worker/stream_state.hpp"

#include <orvane/server_status.hpp>
#include <string>

namespace orvaned {

using orvane::kRecordEndOfSegment;
using orvane::kRecordSegmentData;
using orvane::kRecordStop;
using orvane::pvk_shm_message_t;

namespace {

[[noreturn]] void throwInvalid(const std::string& text) {
  throw Ox_ErrnoException(orvane::kInvalidRecord, text, "");
}

}  // namespace

void checkNoData(const pvk_shm_message_t& header) {
  if (header.len > 0) {
    throwInvalid("a record of type " + std::to_string(header.type) + " has " +
                 std::to_string(header.len) + " data bytes; it may have none");
  }
}

void StreamState::checkOther(const pvk_shm_message_t& header) {
  if (header.type <= kRecordStop) {
    checkNumber(header.seqNo);
  }
  if (header.type == kRecordSegmentData || header.type == kRecordEndOfSegment) {
    checkSegment(header);
  }
  fresh = false;
}

void StreamState::checkNumber(std::uint64_t seqNo) {
  if (seqNo <= lastSeqNo) {
    throw Ox_ErrnoException(orvane::kOutOfOrder,
                            "sequence number out of order: expected above " +
                                std::to_string(lastSeqNo) + ", got " + std::to_string(seqNo),
                            "");
  }
  std::uint64_t leftOut = seqNo - lastSeqNo - 1;
  if (!numberedSinceOpen && leftOut > 0) {
    --leftOut;  // the writer's own gap after its open record
  }
  skippedNumbers += leftOut;
  lastSeqNo = seqNo;
  numberedSinceOpen = true;
}

void StreamState::checkSegment(const pvk_shm_message_t& header) {
  const std::uint64_t number = header.segmentNo;
  if (segmentInProgress && *segmentInProgress != number) {
    throwInvalid("a record of segment " + std::to_string(number) + " came before segment " +
                 std::to_string(*segmentInProgress) + " was ended");
  }
  if (lastSegmentWithData && number <= *lastSegmentWithData) {
    throwInvalid("a record of segment " + std::to_string(number) + " came after segment " +
                 std::to_string(*lastSegmentWithData) + " was ended");
  }
  if (header.type == kRecordSegmentData) {
    segmentInProgress = number;
    segmentHasData = segmentHasData || header.len > 0;
    return;
  }
  checkNoData(header);
  if (segmentHasData) {
    lastSegmentWithData = number;
  }
  segmentInProgress.reset();
  segmentHasData = false;
}

}  // namespace orvaned
