#pragma once

#include <string_view>

namespace orvaned {

// When written data is brought onto the disk itself, where it survives a power cut.
enum class Sync {
  always,   // at each flush: before a batch is answered
  segment,  // a segment while the next one comes in, all at the end of the stream
  none      // when the system decides to
};

// The store that keeps nothing and only counts.
constexpr std::string_view kNullStore = "/dev/null";

}  // namespace orvaned
