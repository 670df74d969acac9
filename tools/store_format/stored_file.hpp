#pragma once

#include <cstdint>
#include <string>

#include "shm/fd.hpp"

namespace tool {

struct Content {
  std::uint64_t bytes = 0;
  std::uint32_t checksum = 0;
};

// Opens a file of the store for reading. Throws std::runtime_error; so it does for a symbolic link
// and for what is no regular file, which no server puts there.
Fd openStored(const std::string& path);

// The text of a file of the store that people read, such as a manifest. Throws the same.
std::string textOfStored(const std::string& path);

// Reads the whole file, which `path` names for messages. Throws std::runtime_error.
Content contentOf(const Fd& file, const std::string& path);
Content contentOf(const std::string& path);

// Why the content is not what was listed; empty when it is.
std::string faultOf(const Content& found, const Content& listed);

// The same of a file, also when it cannot be read.
std::string faultOf(const std::string& path, const Content& listed);

}  // namespace tool
