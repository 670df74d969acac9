#include "replaced_memory.hpp"

#include <dlfcn.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <new>
#include <utility>

namespace {

bool recording = false;
const void* watchedArray = nullptr;
std::vector<std::string> events;

void record(const std::string& event) {
  if (recording) {
    events.push_back(event);
  }
}

// The name of the shared memory that is mapped at `address`; empty for any other memory.
std::string nameAt(const void* address) {
  char start[32];
  std::snprintf(start, sizeof start, "%lx-", reinterpret_cast<unsigned long>(address));
  const std::string folder = "/dev/shm/";
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    const std::size_t name = line.find(folder);
    if (line.starts_with(start) && name != std::string::npos) {
      return line.substr(name + folder.size());
    }
  }
  return "";
}

}  // namespace

namespace orvane::test {

ReplacedMemory::ReplacedMemory(const void* array) {
  take();
  watchedArray = array;
  recording = true;
}

ReplacedMemory::~ReplacedMemory() {
  recording = false;
  watchedArray = nullptr;
}

std::vector<std::string> ReplacedMemory::take() {
  return std::exchange(events, {});
}

}  // namespace orvane::test

// Take the place of the C and C++ libraries' for everything that this executable loads.
extern "C" __attribute__((visibility("default"))) int shm_open(const char* name, int flags,
                                                               mode_t mode) {
  record(std::string("open ") + (*name == '/' ? name + 1 : name));
  using Function = int (*)(const char*, int, mode_t);
  static const auto original = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "shm_open"));
  return original(name, flags, mode);
}

extern "C" __attribute__((visibility("default"))) int munmap(void* address,
                                                             std::size_t size) noexcept {
  if (recording) {
    const std::string name = nameAt(address);
    if (!name.empty()) {
      record("unmap " + name);
    }
  }
  return static_cast<int>(syscall(SYS_munmap, address, size));
}

__attribute__((visibility("default"))) void* operator new[](std::size_t size) {
  if (void* memory = std::malloc(size != 0 ? size : 1)) {
    return memory;
  }
  throw std::bad_alloc();
}

__attribute__((visibility("default"))) void operator delete[](void* memory) noexcept {
  if (memory != nullptr && memory == watchedArray) {
    watchedArray = nullptr;
    record("free");
  }
  std::free(memory);
}

__attribute__((visibility("default"))) void operator delete[](void* memory, std::size_t) noexcept {
  operator delete[](memory);
}
