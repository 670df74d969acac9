#pragma once

#include <cstdint>
#include <optional>
#include <orvane/orvane.hpp>

namespace orvaned {

// Throws Ox_ErrnoException (orvane::kInvalidRecord) when a record has data that its type has no use
// for.
void checkNoData(const orvane::pvk_shm_message_t& header);

// Which record may come next in an open stream. Only the types that the writer numbers are checked
// (0 to 4); records of other types are the producer's own affair.
//
// Numbers: a writer's open record carries 0 and the next one 2, then it counts by one. A record
// that the writer refused uses its number up, so forward gaps are valid; they are counted. Going
// back or repeating is not: something was sent twice, or two producers share the queue.
//
// Segments: a segment's records come together, up to its end; its number is above that of every
// segment with data before it. (An empty segment's number is used again.)
class StreamState {
 public:
  explicit StreamState(const orvane::pvk_shm_message_t& open) : lastSeqNo(open.seqNo) {}

  // Throws Ox_ErrnoException (orvane::kOutOfOrder, orvane::kInvalidRecord), or takes the record as
  // the last one.
  void take(const orvane::pvk_shm_message_t& header) {
    // Nearly all records go on with the segment, and small ones come 50 million times a second.
    if (header.type == orvane::kRecordSegmentData && segmentHasData &&
        header.segmentNo == segmentInProgress && header.seqNo > lastSeqNo &&
        header.seqNo - lastSeqNo == 1) {
      ++lastSeqNo;
      return;
    }
    takeOther(header);
  }

  // Has nothing come since the open record?
  bool isFresh() const { return fresh; }

  // How many sequence numbers were left out.
  std::uint64_t skipped() const { return skippedNumbers; }

 private:
  void takeOther(const orvane::pvk_shm_message_t& header);
  void takeNumber(std::uint64_t seqNo);
  void takeSegment(const orvane::pvk_shm_message_t& header);

  std::uint64_t lastSeqNo;
  std::uint64_t skippedNumbers = 0;
  bool fresh = true;
  bool numberedSinceOpen = false;
  std::optional<std::uint64_t> segmentInProgress;
  bool segmentHasData = false;
  std::optional<std::uint64_t> lastSegmentWithData;
};

}  // namespace orvaned
