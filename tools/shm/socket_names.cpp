#include "shm/socket_names.hpp"

#include <filesystem>

namespace tool {

std::string lockPathOfSocket(const std::string& path) {
  return path + ".lock";
}

// The name is cut, because the server binds it through a path in /proc, and a socket's address has
// little room.
std::string newPathOfSocket(const std::string& path) {
  constexpr std::size_t kLongest = 64;
  const std::filesystem::path whole(path);
  const std::string name = whole.filename();
  return whole.parent_path() / ("." + name.substr(0, kLongest) + ".new");
}

}  // namespace tool
