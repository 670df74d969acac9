#include "store_format/stored_file.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "store_format/checksum.hpp"
#include "store_format/manifest_lines.hpp"
#include "store_format/segment_content.hpp"

namespace tool {

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

Content contentOf(Fd file, const std::string& path) {
  return contentOf(std::move(file), path, {}, [](std::size_t) {});
}

Content contentOf(Fd file, const std::string& path, std::span<unsigned char> block,
                  const std::function<void(std::size_t)>& afterRead) {
  SegmentContent data(std::move(file), path, block);
  Content content;
  std::uint64_t before = 0;
  const auto next = [&] {
    const auto bytes = data.next();
    const auto count = static_cast<std::size_t>(data.fileBytes() - before);
    if (!bytes.empty() || count > 0) {
      afterRead(count);
    }
    before += count;
    return bytes;
  };
  for (auto bytes = next(); !bytes.empty(); bytes = next()) {
    content.bytes += bytes.size();
    content.checksum = checksumOf(bytes, content.checksum);
  }
  content.stored = data.storedBytes();
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
  if (found.stored != listed.stored) {
    return "its file has " + std::to_string(found.stored) + " bytes instead of " +
           std::to_string(listed.stored);
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
