#pragma once

#include <string>
#include <vector>

namespace orvane::test {

// While it lives it writes down, in order, what this process does to shared memory and to one
// array: "open NAME" (tried, with success or without), "unmap NAME", "free". One at a time.
class ReplacedMemory {
 public:
  // `array`, when it is not null, is the one whose release is written down.
  explicit ReplacedMemory(const void* array = nullptr);
  ~ReplacedMemory();
  ReplacedMemory(const ReplacedMemory&) = delete;
  ReplacedMemory& operator=(const ReplacedMemory&) = delete;

  // The events since the last call.
  std::vector<std::string> take();
};

}  // namespace orvane::test
