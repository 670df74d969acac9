#include "temp_folder.hpp"

#include <sys/statvfs.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "exit_code.hpp"
#include "units.hpp"

namespace tool {
namespace {

std::filesystem::path parentFolder() {
  const char* configured = std::getenv("TMPDIR");
  return configured != nullptr && *configured != '\0' ? configured : "/tmp";
}

void requireSpace(const std::filesystem::path& parent, std::uint64_t needed) {
  struct statvfs space = {};
  if (statvfs(parent.c_str(), &space) != 0) {
    return;  // making the folder will tell the reason
  }
  const std::uint64_t available = std::uint64_t{space.f_bavail} * space.f_frsize;
  if (available < needed) {
    throw Failure(kNothingSent, parent.string() + " has " +
                                    bytesText(static_cast<double>(available)) + " free and " +
                                    bytesText(static_cast<double>(needed)) +
                                    " are needed: set TMPDIR to a folder with more room");
  }
}

}  // namespace

TempFolder::TempFolder(std::uint64_t needed) {
  const std::filesystem::path parent = parentFolder();
  requireSpace(parent, needed);
  std::string made = parent / "orvane-demo-XXXXXX";
  if (mkdtemp(made.data()) == nullptr) {
    throw Failure(kNothingSent, "cannot make a folder in " + parent.string() + ": " +
                                    std::strerror(errno) +
                                    "; set TMPDIR to a folder that can be written");
  }
  folder = made;
}

TempFolder::~TempFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(folder, ignored);
}

}  // namespace tool
