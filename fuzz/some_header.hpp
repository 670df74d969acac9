#pragma once

#include <fuzzer/FuzzedDataProvider.h>
#include <orvane/orvane.hpp>

// A header with any values, but for the length of the data, which is 0, and the magic word.
inline orvane::pvk_shm_message_t someHeader(FuzzedDataProvider& input) {
  orvane::pvk_shm_message_t header;
  header.type = input.ConsumeIntegral<std::uint32_t>();
  header.seqNo = input.ConsumeIntegral<std::uint64_t>();
  header.segmentNo = input.ConsumeIntegral<std::uint64_t>();
  header.segmentDone = input.ConsumeIntegral<std::uint32_t>();
  header.segAlg = input.ConsumeIntegral<std::uint32_t>();
  header.segParam1 = input.ConsumeIntegral<std::uint32_t>();
  header.segParam2 = input.ConsumeIntegral<std::uint32_t>();
  header.segParam3 = input.ConsumeIntegral<std::uint32_t>();
  return header;
}
