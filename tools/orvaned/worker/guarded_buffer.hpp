#pragma once

#include <cstddef>
#include <span>

namespace orvaned {

// A buffer with at least 64 KiB of inaccessible memory before it and directly after it. If a sender
// forged a message's size in the queue's own header, the process that copies the message ends at
// the border.
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
