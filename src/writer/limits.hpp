#pragma once

#include <cstdint>

namespace orvane {

constexpr std::uint32_t kMaxSegmentSize = 0x20000;  // data bytes of one record

}  // namespace orvane
