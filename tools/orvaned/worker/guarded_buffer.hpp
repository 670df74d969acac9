#pragma once

#include <cstddef>
#include <span>

namespace orvaned {

// Memory that ends exactly where memory without access begins, and has such memory before it too:
// at least 64 KiB on either side. A message whose size its sender forged, in the queue's own
// header, does not get far beyond the buffer: the process that copies it ends.
class GuardedBuffer {
 public:
  // Throws std::bad_alloc.
  explicit GuardedBuffer(std::size_t size);
  ~GuardedBuffer();
  GuardedBuffer(const GuardedBuffer&) = delete;
  GuardedBuffer& operator=(const GuardedBuffer&) = delete;

  unsigned char* data() const { return bytes; }
  std::size_t size() const { return byteCount; }

 private:
  const std::size_t byteCount;
  const std::size_t mappedSize;
  void* const mapped;
  unsigned char* const bytes;
};

}  // namespace orvaned
