#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>

#include "shm/fd.hpp"

namespace tool {

// The data of a file, decompressed if the file is compressed.
struct Content {
  std::uint64_t bytes = 0;
  std::uint32_t checksum = 0;
  std::uint64_t stored = 0;  // bytes of a compressed file; 0: the file is not compressed

  bool operator==(const Content&) const = default;
};

// Opens a file of the store for reading. Throws std::runtime_error, also for a symbolic link or
// another file that is not regular, because a server creates only regular files.
Fd openStored(const std::string& path);

// Throws std::runtime_error with the text of `error`, an errno value.
[[noreturn]] void failToRead(const std::string& path, int error);

// Reads the whole file (segment_content.hpp). Error messages name it by `path`. Throws
// std::runtime_error, or ZstdMissing.
Content contentOf(Fd file, const std::string& path);
Content contentOf(const std::string& path);

// The same, but reads a plain file into `block`, and calls `afterRead` again and again with the
// number of bytes of the file that were read since the last call, which is often 0 if the file is
// compressed.
Content contentOf(Fd file, const std::string& path, std::span<unsigned char> block,
                  const std::function<void(std::size_t)>& afterRead);

// Returns how the content differs from what the manifest lists, or "" if it does not.
std::string faultOf(const Content& found, const Content& listed);

// Reads a file and does the same; a file that cannot be read differs, too.
std::string faultOf(const std::string& path, const Content& listed);

}  // namespace tool
