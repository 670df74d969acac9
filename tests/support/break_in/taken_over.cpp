// The shipped server, whose worker is taken over: linked into a separate program. TraceOn() is
// called for each message that a worker takes, after it has confined itself; here it runs the
// attack that the test asks for.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <stdexcept>

#include "support/break_in/taken_over.hpp"

namespace {

using orvane::break_in::Shared;

Shared* mapShared() {
  const char* path = std::getenv("ORVANED_TEST_ATTACK");
  const int file = path != nullptr ? open(path, O_RDWR | O_CLOEXEC) : -1;
  void* memory = file >= 0
                     ? mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0)
                     : MAP_FAILED;
  close(file);
  return memory != MAP_FAILED ? static_cast<Shared*>(memory) : nullptr;
}

Shared* const shared = mapShared();

void spin() {
  for (std::atomic<unsigned> turns = 0;;) {
    turns.fetch_add(1);
  }
}

}  // namespace

// The supervisor's memory can be out.
void* operator new(std::size_t size) {
  if (shared != nullptr && shared->memoryIsOut && shared->supervisor == getpid()) {
    throw std::bad_alloc();
  }
  if (void* memory = std::malloc(size == 0 ? 1 : size)) {
    return memory;
  }
  throw std::bad_alloc();
}

void operator delete(void* memory) noexcept {
  std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

extern "C" __attribute__((visibility("default"))) bool TraceOn() {
  if (shared == nullptr || !shared->armed.exchange(false)) {
    return false;
  }
  const std::string_view name = shared->name;
  if (name == "spin") {
    spin();
  }
  if (name == "bad_alloc") {
    throw std::bad_alloc();
  }
  if (name == "unknown exception") {
    throw 1;
  }
  shared->result.store(orvane::break_in::attack(shared->name, shared->plan()));
  return false;
}
