#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>

#include "ring/memory.hpp"
#include "support/system_call.hpp"

namespace orvane::test {

constexpr std::size_t kPageSize = 4096;
constexpr std::uint64_t k4GiB = std::uint64_t{1} << 32;

// A file of zeros of which only what is written has memory.
inline ring::File sparseFile(std::uint64_t bytes) {
  ring::File file(memfd_create("sparse", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  orThrow(ftruncate(file.get(), static_cast<off_t>(bytes)), "ftruncate");
  return file;
}

// Whether the system may write there.
inline bool isWritable(void* address) {
  int ends[2];
  orThrow(pipe(ends), "pipe");
  orThrow(static_cast<int>(write(ends[1], "x", 1)), "write");
  const bool written = read(ends[0], address, 1) == 1;
  close(ends[0]);
  close(ends[1]);
  return written;
}

}  // namespace orvane::test
