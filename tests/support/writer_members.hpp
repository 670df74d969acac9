#pragma once

#include <memory>
#include <string>

#include "orvane/ring_writer.hpp"
#include "orvane/writer.hpp"

// Reaches the private members of a writer whose state no call and no byte shows.
// Explicit instantiation is the one place where the language does not check access.
namespace orvane::test {

template <class Name, typename Name::Pointer kMember>
struct Exposed {
  friend typename Name::Pointer pointerTo(Name) { return kMember; }
};

#define ORVANE_EXPOSE(WRITER, MEMBER, ...)                        \
  struct WRITER##MEMBER##Name {                                   \
    using Pointer = __VA_ARGS__ WRITER::*;                        \
    friend Pointer pointerTo(WRITER##MEMBER##Name);               \
  };                                                              \
  template struct Exposed<WRITER##MEMBER##Name, &WRITER::MEMBER>; \
  inline __VA_ARGS__& MEMBER##Of(WRITER& writer) {                \
    return writer.*pointerTo(WRITER##MEMBER##Name{});             \
  }

// Its counters near their limits, what benchmark mode counts without sending it, what a failed call
// left in it, and an open that finds a segment unfinished.
ORVANE_EXPOSE(ShmWriter, header, pvk_shm_message_t)
ORVANE_EXPOSE(RingWriter, header, pvk_shm_message_t)
// A test replaces it to make one send fail after the batch was sent, and others not.
ORVANE_EXPOSE(ShmWriter, responseQueue, std::unique_ptr<boost::interprocess::message_queue>)
// The records that a writer keeps when its queue can no longer be used, and the memory that it
// frees.
ORVANE_EXPOSE(ShmWriter, batch, std::unique_ptr<ShmBatch>)
// Both belong to the dormant check of mixed states, which no call wakes.
ORVANE_EXPOSE(ShmWriter, segmentFirstWrite, bool)
ORVANE_EXPOSE(RingWriter, segmentFirstWrite, bool)
ORVANE_EXPOSE(ShmWriter, lastSegmentState, orvane_seg_state_t)
ORVANE_EXPOSE(RingWriter, lastSegmentState, orvane_seg_state_t)
#undef ORVANE_EXPOSE

}  // namespace orvane::test
