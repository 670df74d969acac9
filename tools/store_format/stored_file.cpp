#include "store_format/stored_file.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "store_format/checksum.hpp"
#include "store_format/manifest_lines.hpp"

namespace tool {
namespace {

constexpr std::size_t kBlock = 1 << 20;

}  // namespace

void failToRead(const std::string& path, int error) {
  throw std::runtime_error(std::generic_category().message(error) + ": cannot read " + path);
}

// O_NONBLOCK, because opening a FIFO that another program put there must not block.
Fd openStored(const std::string& path) {
  Fd file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat status = {};
  if (file.get() < 0 || fstat(file.get(), &status) != 0) {
    failToRead(path, errno);
  }
  if (!S_ISREG(status.st_mode)) {
    failToRead(path, EINVAL);
  }
  return file;
}

Content contentOf(const Fd& file, const std::string& path) {
  Content content;
  std::vector<unsigned char> block(kBlock);
  ssize_t size = 0;
  while ((size = read(file.get(), block.data(), block.size())) > 0) {
    const auto count = static_cast<std::size_t>(size);
    content.bytes += count;
    content.checksum = checksumOf({block.data(), count}, content.checksum);
  }
  if (size < 0) {
    failToRead(path, errno);
  }
  return content;
}

Content contentOf(const std::string& path) {
  return contentOf(openStored(path), path);
}

std::string faultOf(const Content& found, const Content& listed) {
  if (found.bytes != listed.bytes) {
    return "it has " + std::to_string(found.bytes) + " bytes instead of " +
           std::to_string(listed.bytes);
  }
  if (found.checksum != listed.checksum) {
    return "its checksum is " + checksumText(found.checksum) + " instead of " +
           checksumText(listed.checksum);
  }
  return "";
}

std::string faultOf(const std::string& path, const Content& listed) {
  try {
    return faultOf(contentOf(path), listed);
  } catch (const std::runtime_error& e) {
    return e.what();
  }
}

}  // namespace tool
