#include "worker/guarded_buffer.hpp"

#include <sys/mman.h>

#include <new>

namespace orvaned {
namespace {

constexpr std::size_t kPage = 4096;
constexpr std::size_t kGuard = 65536;

std::size_t wholePages(std::size_t size) {
  return (size + kPage - 1) / kPage * kPage;
}

void* mapGuarded(std::size_t size, std::size_t accessible) {
  void* memory = mmap(nullptr, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) {
    throw std::bad_alloc();
  }
  if (mprotect(static_cast<char*>(memory) + kGuard, accessible, PROT_READ | PROT_WRITE) != 0) {
    munmap(memory, size);
    throw std::bad_alloc();
  }
  return memory;
}

}  // namespace

GuardedBuffer::GuardedBuffer(std::size_t size)
    : byteCount(size),
      mappedSize(kGuard + wholePages(size) + kGuard),
      mapped(mapGuarded(mappedSize, wholePages(size))),
      bytes(static_cast<unsigned char*>(mapped) + kGuard + wholePages(size) - size) {}

GuardedBuffer::~GuardedBuffer() {
  munmap(mapped, mappedSize);
}

}  // namespace orvaned
