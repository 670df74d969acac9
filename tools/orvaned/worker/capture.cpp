#include "worker/capture.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "log.hpp"
#include "store_format/capture_header.hpp"

namespace orvaned {
namespace {

// Does not wait for the other end of a pipe. A pipe is refused: a full one would block the stream.
tool::Fd openCapture(const std::string& path) {
  tool::Fd file(open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_CLOEXEC, 0600));
  struct stat status = {};
  if (file.get() < 0 || fstat(file.get(), &status) != 0) {
    throw std::runtime_error(std::generic_category().message(errno));
  }
  if (!S_ISREG(status.st_mode)) {
    throw std::runtime_error("it is no regular file");
  }
  return file;
}

iovec partOf(const void* bytes, std::size_t size) {
  return {const_cast<void*>(bytes), size};
}

}  // namespace

void checkCapture(const std::string& path) {
  try {
    if (!path.empty()) {
      openCapture(path);
    }
  } catch (const std::runtime_error& e) {
    throw std::runtime_error("cannot capture into " + path + ": " + e.what() +
                             ": --capture needs a file that the server can append to");
  }
}

Capture::Capture(std::string path, std::string queue)
    : path(std::move(path)), queue(std::move(queue)) {
  try {
    if (!this->path.empty()) {
      file = openCapture(this->path);
    }
  } catch (const std::runtime_error& e) {
    warn(e.what());
  }
}

void Capture::append(std::span<const unsigned char> message) {
  const tool::CaptureHeader header = {static_cast<std::uint32_t>(queue.size()), message.size()};
  const auto head = tool::bytesOf(header);
  const iovec parts[] = {partOf(head.data(), head.size()), partOf(queue.data(), queue.size()),
                         partOf(message.data(), message.size())};
  const std::size_t size = head.size() + queue.size() + message.size();
  ssize_t written = -1;
  do {
    written = writev(file.get(), parts, 3);
  } while (written < 0 && errno == EINTR);
  if (written == static_cast<ssize_t>(size)) {
    return;
  }
  // An incomplete message stays in the file, which can only be appended to; readers skip it.
  warn(written < 0
           ? std::generic_category().message(errno)
           : "it took only " + std::to_string(written) + " of " + std::to_string(size) + " bytes");
  file.reset();
}

void Capture::warn(const std::string& reason) const {
  const orvane::server::Logger log("capture");
  log.log(orvane::server::LEVEL_WARNING, __func__, 0, "queue %s: capturing into %s ends: %s",
          doublePercent(queue).c_str(), doublePercent(path).c_str(), doublePercent(reason).c_str());
}

}  // namespace orvaned
