#include "store_format/removed_stream.hpp"

#include <filesystem>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "store_format/stream_id.hpp"

namespace tool {
namespace {

constexpr std::string_view kBegin = ".";
constexpr std::string_view kEnd = ".removed";

}  // namespace

std::string removedFolderOf(const std::string& id) {
  return std::string(kBegin) + id + std::string(kEnd);
}

bool isRemovedFolder(const std::string& name) {
  return name.starts_with(kBegin) && name.ends_with(kEnd) &&
         name.size() > kBegin.size() + kEnd.size() &&
         parseStreamId(name.substr(kBegin.size(), name.size() - kBegin.size() - kEnd.size()))
             .has_value();
}

void removeFolder(const std::string& path) {
  std::error_code error;
  do {
    std::filesystem::remove_all(path, error);
  } while (error == std::errc::no_such_file_or_directory);  // another process removes it, too
  if (error) {
    throw std::runtime_error(error.message() + ": cannot remove " + path);
  }
}

}  // namespace tool
