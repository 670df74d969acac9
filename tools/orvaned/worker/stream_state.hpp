#pragma once

#include <cstdint>
#include <optional>
#include <orvane/orvane.hpp>

namespace orvaned {

// For types of records without data. Throws Ox_ErrnoException (orvane::kInvalidRecord) when a
// record has data.
void checkNoData(const orvane::pvk_shm_message_t& header);

// Decides which record is valid next in an open stream. Only the types that the writer numbers
// (0 to 4) are checked; records of other types may come in any order.
//
// Numbers: a writer's open record carries 0 and the next one 2, then it counts by one. A record
// that the writer refused uses its number up, so gaps are valid; they are counted. A number that
// goes back or repeats is invalid: something was sent twice, or two producers share the queue.
//
// Segments: a segment's records come together, up to its end; its number is above that of every
// segment with data before it. (An empty segment's number is used again.)
class StreamState {
 public:
  explicit StreamState(const orvane::pvk_shm_message_t& open) : lastSeqNo(open.seqNo) {}

  // Throws Ox_ErrnoException (orvane::kOutOfOrder, orvane::kInvalidRecord) if the record is invalid
  // here; otherwise it counts as the last one.
  void check(const orvane::pvk_shm_message_t& header) {
    // Nearly all records continue the segment, and small ones come 50 million times a second.
    if (header.type == orvane::kRecordSegmentData && segmentHasData &&
        header.segmentNo == segmentInProgress && header.seqNo > lastSeqNo &&
        header.seqNo - lastSeqNo == 1) {
      ++lastSeqNo;
      return;
    }
    checkOther(header);
  }

  // Has no record come since the open record?
  bool isFresh() const { return fresh; }

  // How many sequence numbers were skipped.
  std::uint64_t skipped() const { return skippedNumbers; }

 private:
  void checkOther(const orvane::pvk_shm_message_t& header);
  void checkNumber(std::uint64_t seqNo);
  void checkSegment(const orvane::pvk_shm_message_t& header);

  std::uint64_t lastSeqNo;
  std::uint64_t skippedNumbers = 0;
  bool fresh = true;
  bool numberedSinceOpen = false;
  std::optional<std::uint64_t> segmentInProgress;
  bool segmentHasData = false;
  std::optional<std::uint64_t> lastSegmentWithData;
};

}  // namespace orvaned
