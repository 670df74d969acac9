#pragma once

#include <memory>
#include <string>

#include "orvane/writer.hpp"

// Reaches the private members of a writer whose state no call and no byte shows.
// Explicit instantiation is the one place where the language does not check access.
namespace orvane::test {

template <class Name, typename Name::Pointer kMember>
struct Exposed {
  friend typename Name::Pointer pointerTo(Name) { return kMember; }
};

#define ORVANE_EXPOSE(MEMBER, ...)                           \
  struct MEMBER##Name {                                      \
    using Pointer = __VA_ARGS__ ShmWriter::*;                \
    friend Pointer pointerTo(MEMBER##Name);                  \
  };                                                         \
  template struct Exposed<MEMBER##Name, &ShmWriter::MEMBER>; \
  inline __VA_ARGS__& MEMBER##Of(ShmWriter& writer) {        \
    return writer.*pointerTo(MEMBER##Name{});                \
  }

// Its counters near their limits, what benchmark mode counts without sending it, what a failed call
// left in it, and an open that finds a segment unfinished.
ORVANE_EXPOSE(header, pvk_shm_message_t)
// A test replaces it to make one send fail after the batch was sent, and others not.
ORVANE_EXPOSE(responseQueue, std::unique_ptr<boost::interprocess::message_queue>)
// The records that a writer keeps when its queue can no longer be used, and the memory that it
// frees.
ORVANE_EXPOSE(batch, std::unique_ptr<ShmBatch>)
// Both belong to the dormant check of mixed states, which no call wakes.
ORVANE_EXPOSE(segmentFirstWrite, bool)
ORVANE_EXPOSE(lastSegmentState, orvane_seg_state_t)
#undef ORVANE_EXPOSE

}  // namespace orvane::test
