#pragma once

#include <cstdint>
#include <string>

#include "shm/fd.hpp"

namespace tool {

struct Content {
  std::uint64_t bytes = 0;
  std::uint32_t checksum = 0;
};

// Opens a file of the store for reading. Throws std::runtime_error, also for a symbolic link or
// another file that is not regular, because a server creates only regular files.
Fd openStored(const std::string& path);

// Throws std::runtime_error with the text of `error`, an errno value.
[[noreturn]] void failToRead(const std::string& path, int error);

// Reads the whole file. Error messages name it by `path`. Throws std::runtime_error.
Content contentOf(const Fd& file, const std::string& path);
Content contentOf(const std::string& path);

// Returns how the content differs from what the manifest lists, or "" if it does not.
std::string faultOf(const Content& found, const Content& listed);

// Reads a file and does the same; a file that cannot be read differs, too.
std::string faultOf(const std::string& path, const Content& listed);

}  // namespace tool
