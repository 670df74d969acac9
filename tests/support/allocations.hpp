#pragma once

#include <cstddef>
#include <functional>

namespace orvane::test {

// While it lives, this thread's operator new and delete ask first. One at a time in each thread.
class Allocations {
 public:
  // Memory to give for `size` bytes, or null for the heap's; may throw.
  using Give = std::function<void*(std::size_t size)>;
  // Told of all memory that is given back; true when it was not the heap's.
  using TakeBack = std::function<bool(void* memory)>;

  explicit Allocations(
      Give giveMemory, TakeBack takeMemoryBack = [](void*) { return false; });
  ~Allocations();
  Allocations(const Allocations&) = delete;
  Allocations& operator=(const Allocations&) = delete;

  static void* allocate(std::size_t size);
  static void release(void* memory) noexcept;

 private:
  const Give give;
  const TakeBack takeBack;
};

}  // namespace orvane::test
