#pragma once

#include <pthread.h>

#include <cstdint>

#include "orvane/channel.hpp"
#include "orvane/status.hpp"
#include "ox/log.hpp"
#include "ox/trace.hpp"
#include "records/failure.hpp"
#include "writer/limits.hpp"

namespace orvane {

// How a writer's calls become records. ShmWriter and RingWriter share these steps, so that a
// server receives the same records from both; each has its own write_data(). `Writer` is a friend.
struct RecordSteps {
  // Fills the header of an open record. segParam1 and segParam3 keep the values of the last record:
  // deployed servers rely on them in a second stream's open record, and every later record sets all
  // four fields again.
  template <typename Writer>
  static void fillOpen(Writer& writer) {
    writer.header.seqNo = 0;
    writer.header.type = kRecordOpen;
    writer.header.len = 0;
    writer.header.segAlg = 0;
    writer.header.segParam2 = 0;
    writer.header.segmentDone = 1;
    writer.header.segmentNo = 0;
  }

  template <typename Writer>
  static void setSegmentAlg(Writer& writer, orvane_seg_state_t state, std::uint64_t param1,
                            std::uint64_t param2, std::uint64_t param3) {
    writer.segAlg = state;
    writer.segParam1 = param1;
    writer.segParam2 = param2;
    writer.segParam3 = param3;
  }

  template <typename Writer>
  static void fillSegmentFields(Writer& writer) {
    writer.header.segAlg = static_cast<std::uint32_t>(writer.segAlg);
    writer.header.segParam1 = static_cast<std::uint32_t>(writer.segParam1);
    writer.header.segParam2 = static_cast<std::uint32_t>(writer.segParam2);
    writer.header.segParam3 = static_cast<std::uint32_t>(writer.segParam3);
  }

  // Throws if the writer cannot take segment data now.
  template <typename Writer>
  static void requireSegment(Writer& writer) {
    if (!writer.isOpen) {
      fail(kStatusNotOpen, "Could not write segment data because ShmWriter is not open");
    }
    if (writer.segAlg != kOrvaneSegBounded && writer.segAlg != kOrvaneSegUnbounded) {
      fail(kStatusWrongAlgorithm,
           "Could not write segment data because wrong algorithm has been set");
    }
    // Dormant: nothing clears segmentFirstWrite, so a stream may mix states. The check and its
    // message stand ready for a server that cannot take a mixture.
    if (writer.segmentFirstWrite) {
      writer.lastSegmentState = writer.segAlg;
    } else if (writer.segAlg != writer.lastSegmentState) {
      fail(kStatusNotHomogeneous, "Could not write segment data for sequence ",
           writer.header.seqNo + 1, " because segment states are not homogeneous (",
           "last state=", static_cast<std::int32_t>(writer.lastSegmentState),
           ", current state=", static_cast<std::int32_t>(writer.segAlg), ")");
    }
  }

  // Fills the header of segment data.
  template <typename Writer>
  static void fillSegmentData(Writer& writer, unsigned long length) {
    fillSegmentFields(writer);
    writer.header.seqNo += 1;
    writer.header.type = kRecordSegmentData;
    writer.header.len = static_cast<std::uint32_t>(length);
    if (writer.header.len != 0) {
      writer.header.segmentDone = 0;
    }
  }

  template <typename Writer>
  static void writeSegment(Writer& writer, const unsigned char* data, unsigned long length) {
    const AutoTrace scope("writeSegment");
    requireSegment(writer);
    fillSegmentData(writer, length);
    writer.write_data(&writer.header, data, writer.timeout, false);
  }

  template <typename Writer>
  static void endSegment(Writer& writer) {
    const AutoTrace scope("endSegment");
    if (!writer.isOpen) {
      fail(kStatusNotOpen, "Could not end segment data because ShmWriter is not open");
    }
    if (writer.lastMessageType == kRecordEndOfSegment) {
      if (TraceOn()) {
        __Trace("%s: ignoring redundant %u header", "endSegment", writer.lastMessageType);
      }
      return;
    }
    endWith(writer, kRecordEndOfSegment, writer.timeout, false);
  }

  // Appends an end of segment, a close or a stop. Each of them also ends a segment that holds data.
  template <typename Writer>
  static void endWith(Writer& writer, std::uint32_t type, unsigned int sendTimeout, bool flush) {
    writer.header.seqNo += 1;
    writer.header.type = type;
    writer.header.len = 0;
    fillSegmentFields(writer);
    writer.write_data(&writer.header, nullptr, sendTimeout, flush);
    if (writer.header.segmentDone == 0) {
      writer.header.segmentNo += 1;
      writer.header.segmentDone = 1;
    }
  }

  // These are for a stream over a queue, which fills the batch of a ShmWriter directly.
  template <typename Writer>
  static bool hasNothing(const Writer& writer) {
    return writer.batch->empty();
  }
  template <typename Writer>
  [[gnu::always_inline]] static bool hasRoomFor(const Writer& writer, std::uint32_t len) {
    return writer.batch->hasRoomFor(len);
  }
  template <typename Writer>
  [[gnu::always_inline]] static void appendSegmentData(Writer& writer, const unsigned char* data,
                                                       std::uint32_t len) {
    fillSegmentData(writer, len);
    writer.batch->append(writer.header, data);
    writer.lastMessageType = kRecordSegmentData;
  }
  // The writer's destructor sends nothing then.
  template <typename Writer>
  static void abandon(Writer& writer) {
    writer.isOpen = false;
  }

  // Closes a writer that is being destroyed.
  template <typename Writer>
  static void closeInDestructor(Writer& writer) {
    // If the thread were cancelled while it waits here, it would unwind through a destructor, which
    // ends the process.
    int cancelState = PTHREAD_CANCEL_ENABLE;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState);
    try {
      writer.close();
    } catch (...) {
      // A destructor cannot report errors.
    }
    pthread_setcancelstate(cancelState, nullptr);
  }

  static void requireSize(const pvk_shm_message_t& record) {
    if (record.len > kMaxSegmentSize && record.segAlg != kOrvaneSegUnbounded) {
      // The double blank is kept, because programs that watch for this text rely on it.
      fail(kStatusSegmentTooLarge, "Segment too large error.  Received segment of size ",
           record.len, " bytes, but the maximum allowed segment size is ", kMaxSegmentSize,
           " bytes");
    }
  }

  // Throws if a record is too large; returns false if the writer only measures and drops it.
  template <typename Writer>
  [[gnu::always_inline]] static bool admit(const Writer& writer, const pvk_shm_message_t& record,
                                           unsigned int sendTimeout) {
    if (TraceOn()) {
      __Trace("%s: write header.type =%d, len=%d, timeout=%us", "write_data", record.type,
              record.len, sendTimeout);
    }
    requireSize(record);
    if (writer.perfBenchmarkEnabled) {
      WarningA(static_cast<int>(0xFFFFFFFF),
               "%s: ORVANE_PERF_BENCHMARK_ENABLED is set to 1. This backup will fail. Dumping "
               "data..",
               "write_data");
      return false;
    }
    return true;
  }
};

}  // namespace orvane
