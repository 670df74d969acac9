#include "support/allocations.hpp"

#include <cstdlib>
#include <new>
#include <utility>

namespace orvane::test {
namespace {

thread_local const Allocations* asked = nullptr;

// Nobody is asked while somebody answers.
class Answering {
 public:
  Answering() : allocations(std::exchange(asked, nullptr)) {}
  ~Answering() { asked = allocations; }
  Answering(const Answering&) = delete;
  Answering& operator=(const Answering&) = delete;

  const Allocations* const allocations;
};

}  // namespace

Allocations::Allocations(Give giveMemory, TakeBack takeMemoryBack)
    : give(std::move(giveMemory)), takeBack(std::move(takeMemoryBack)) {
  asked = this;
}

Allocations::~Allocations() {
  asked = nullptr;
}

void* Allocations::allocate(std::size_t size) {
  void* memory = nullptr;
  if (asked != nullptr) {
    const Answering answering;
    memory = answering.allocations->give(size);
  }
  if (memory == nullptr) {
    memory = std::malloc(size);
  }
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}

void Allocations::release(void* memory) noexcept {
  if (asked != nullptr) {
    const Answering answering;
    if (answering.allocations->takeBack(memory)) {
      return;
    }
  }
  std::free(memory);
}

}  // namespace orvane::test

using orvane::test::Allocations;

void* operator new(std::size_t size) {
  return Allocations::allocate(size);
}
void* operator new[](std::size_t size) {
  return Allocations::allocate(size);
}
// AddressSanitizer has one that does not call the operator above.
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  try {
    return Allocations::allocate(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}
void operator delete(void* memory) noexcept {
  Allocations::release(memory);
}
void operator delete[](void* memory) noexcept {
  Allocations::release(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  Allocations::release(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
  Allocations::release(memory);
}
