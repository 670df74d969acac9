#include "common/stored_file.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "common/checksum.hpp"
#include "common/fd.hpp"
#include "common/manifest_lines.hpp"

namespace tool {
namespace {

constexpr std::size_t kBlock = 1 << 20;

[[noreturn]] void failToRead(const std::string& path) {
  throw std::runtime_error(std::generic_category().message(errno) + ": cannot read " + path);
}

}  // namespace

Content contentOf(const std::string& path) {
  const Fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0) {
    failToRead(path);
  }
  Content content;
  std::vector<unsigned char> block(kBlock);
  ssize_t size = 0;
  while ((size = read(fd.get(), block.data(), block.size())) > 0) {
    const auto count = static_cast<std::size_t>(size);
    content.bytes += count;
    content.checksum = checksumOf({block.data(), count}, content.checksum);
  }
  if (size < 0) {
    failToRead(path);
  }
  return content;
}

std::string faultOf(const std::string& path, const Content& listed) {
  try {
    const Content found = contentOf(path);
    if (found.bytes != listed.bytes) {
      return "it has " + std::to_string(found.bytes) + " bytes instead of " +
             std::to_string(listed.bytes);
    }
    if (found.checksum != listed.checksum) {
      return "its checksum is " + checksumText(found.checksum) + " instead of " +
             checksumText(listed.checksum);
    }
    return "";
  } catch (const std::runtime_error& e) {
    return e.what();
  }
}

}  // namespace tool
