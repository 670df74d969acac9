#pragma once

#include <cstdint>
#include <memory>

#include "orvane/batch.hpp"

// Reaches a batch's private members. Explicit instantiation is the one place where the language
// does not check access.
namespace orvane::test {

template <class Name, typename Name::Pointer kMember>
struct BatchMember {
  friend typename Name::Pointer batchMember(Name) { return kMember; }
};

#define ORVANE_EXPOSE(MEMBER, ...)                                \
  struct Batch_##MEMBER {                                         \
    using Pointer = __VA_ARGS__ ShmBatch::*;                      \
    friend Pointer batchMember(Batch_##MEMBER);                   \
  };                                                              \
  template struct BatchMember<Batch_##MEMBER, &ShmBatch::MEMBER>; \
  inline __VA_ARGS__& MEMBER##Of(ShmBatch& batch) {               \
    return batch.*batchMember(Batch_##MEMBER{});                  \
  }

ORVANE_EXPOSE(bufferSize, std::uint64_t)
ORVANE_EXPOSE(buffer, std::unique_ptr<unsigned char[]>)
ORVANE_EXPOSE(used, std::uint64_t)
ORVANE_EXPOSE(metaData, ShmBatch::MetaData)
ORVANE_EXPOSE(writePos, unsigned char*)
#undef ORVANE_EXPOSE

}  // namespace orvane::test
