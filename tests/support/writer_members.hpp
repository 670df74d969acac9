#pragma once

#include <memory>
#include <string>

#include "orvane/writer.hpp"

// Reaches a writer's private members: some of its state (the counters of benchmark mode, the
// dormant homogeneity check, the order in which members are destroyed) has no other way out.
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

ORVANE_EXPOSE(msgQueueName, std::string)
ORVANE_EXPOSE(timeout, unsigned int)
ORVANE_EXPOSE(stopTimeout, unsigned int)
ORVANE_EXPOSE(perfBenchmarkEnabled, bool)
ORVANE_EXPOSE(header, pvk_shm_message_t)
ORVANE_EXPOSE(response, pvk_shm_response_t)
ORVANE_EXPOSE(sendQueue, std::unique_ptr<boost::interprocess::message_queue>)
ORVANE_EXPOSE(responseQueue, std::unique_ptr<boost::interprocess::message_queue>)
ORVANE_EXPOSE(batch, std::unique_ptr<ShmBatch>)
ORVANE_EXPOSE(lastMessageType, std::uint32_t)
ORVANE_EXPOSE(segmentFirstWrite, bool)
ORVANE_EXPOSE(lastSegmentState, orvane_seg_state_t)
ORVANE_EXPOSE(segAlg, orvane_seg_state_t)
ORVANE_EXPOSE(segParam1, std::uint64_t)
ORVANE_EXPOSE(segParam2, std::uint64_t)
ORVANE_EXPOSE(segParam3, std::uint64_t)
#undef ORVANE_EXPOSE

}  // namespace orvane::test
