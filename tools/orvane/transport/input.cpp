#include "transport/input.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "exit.hpp"

namespace tool {
namespace {

[[noreturn]] void fail(ExitCode code, const std::string& action, const std::string& name) {
  throw Failure(code, "cannot " + action + " " + name + ": " + std::strerror(errno));
}

}  // namespace

Input::Input(const std::string& path)
    : displayName(path == "-" ? "standard input" : path),
      fd(path == "-" ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3)
                     : open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
  struct stat status = {};
  if (fd < 0 || fstat(fd, &status) != 0) {
    fail(kNothingSent, "open", displayName);
  }
  if (S_ISDIR(status.st_mode)) {
    close(fd);
    throw Failure(kNothingSent, displayName + " is a directory: name its files instead");
  }
  regular = S_ISREG(status.st_mode);
  if (regular) {
    fileSize = static_cast<std::uint64_t>(status.st_size);
    startOffset = lseek(fd, 0, SEEK_CUR);
  }
}

Input::~Input() {
  if (fd >= 0) {
    close(fd);
  }
}

Input::Input(Input&& other) noexcept
    : displayName(std::move(other.displayName)),
      fd(other.fd),
      regular(other.regular),
      startOffset(other.startOffset),
      fileSize(other.fileSize) {
  other.fd = -1;
}

std::optional<std::uint64_t> Input::size() const {
  if (!regular) {
    return std::nullopt;
  }
  const auto start = static_cast<std::uint64_t>(startOffset);
  return fileSize > start ? fileSize - start : 0;
}

void Input::rewind() {
  if (lseek(fd, startOffset, SEEK_SET) < 0) {
    fail(kInputFailed, "read again", displayName);
  }
}

std::size_t Input::read(unsigned char* buffer, std::size_t size, Interrupt& interrupt) {
  std::size_t filled = 0;
  while (filled < size) {
    interrupt.waitReadable(fd);
    const ssize_t got = ::read(fd, buffer + filled, size - filled);
    if (got == 0) {
      break;
    }
    if (got > 0) {
      filled += static_cast<std::size_t>(got);
    } else if (errno != EINTR && errno != EAGAIN) {
      fail(kInputFailed, "read all of", displayName);
    }
  }
  return filled;
}

Reader Input::reader(Interrupt& interrupt) {
  return [this, &interrupt](unsigned char* buffer, std::size_t wanted) {
    return read(buffer, wanted, interrupt);
  };
}

}  // namespace tool
