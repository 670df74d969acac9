#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

#include "orvane/records.hpp"
#include "ring/layout.hpp"
#include "ring/system.hpp"

namespace orvane::ring {

struct alignas(kPage) ProducerPage {
  Identity identity;
  ProducerCounters<LinuxSystem::Atomic> counters;
};

// The responses begin at a separate page, as layout.hpp draws them.
// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding)
struct alignas(kPage) ServerPage {
  Identity identity;
  ServerCounters<LinuxSystem::Atomic> counters;
  alignas(kPage) pvk_shm_response_t answers[kAnswers];
};

static_assert(sizeof(ProducerPage) == kPage);
static_assert(sizeof(ServerPage) == 2 * kPage);

// A descriptor that is closed at the end.
class File {
 public:
  File() = default;
  explicit File(int fd) : fd(fd) {}
  ~File();
  File(File&& other) noexcept;
  File& operator=(File&& other) noexcept;

  int get() const { return fd; }
  int release() { return std::exchange(fd, -1); }

 private:
  int fd = -1;
};

// A part of a file in memory. A forked child does not have it.
class Mapping {
 public:
  // Throws Ox_ErrnoException.
  Mapping(int file, std::uint64_t offset, std::size_t bytes, bool writable, bool twice = false);
  ~Mapping();
  Mapping(Mapping&& other) noexcept;

  unsigned char* get() const { return address; }

 private:
  const std::size_t size;
  unsigned char* address;
  const unsigned int madeInFork;
};

// Returns `bytes`, or throws kStatusInvalidArgument if a ring cannot have this size.
std::uint64_t checkedRingSize(std::uint64_t bytes);

enum class Sealed { size, sizeAndWriting };

// Makes a file of `bytes` zeros, with all its memory, that keeps its size. Throws
// Ox_ErrnoException.
File makeFile(const char* name, std::uint64_t bytes);

// Forbids all that is still allowed. With sizeAndWriting, only mappings that exist now can write.
void seal(const File& file, Sealed what);

// Checks a file of the other side: it has `bytes` bytes and keeps them. Throws Ox_ErrnoException.
void requireSealed(const File& file, std::uint64_t bytes);

}  // namespace orvane::ring
