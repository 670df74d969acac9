#include "support/reachable.hpp"

#include <fcntl.h>

#include <cstdlib>
#include <filesystem>

namespace orvane::test {
namespace {

// Descriptors that stay open: a way to them through /proc enters no folder above.
std::string byDescriptor(const std::string& path) {
  return "/proc/self/fd/" + std::to_string(open(path.c_str(), O_PATH));
}

}  // namespace

std::string reachable(const std::string& program) {
  const std::filesystem::path build = std::filesystem::path(program).parent_path().parent_path();
  setenv("LD_LIBRARY_PATH", byDescriptor((build / "lib").string()).c_str(), 1);
  return byDescriptor(program);
}

}  // namespace orvane::test
