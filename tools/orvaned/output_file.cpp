#include "output_file.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <orvane/orvane.hpp>
#include <system_error>
#include <utility>

#include "server_status.hpp"

namespace orvaned {
namespace {

// Small records share a write; one of this size or more is written from where it lies.
constexpr std::size_t kBufferSize = 32768;

}  // namespace

void throwStoreFailed(int error, const std::string& action, const std::string& path) {
  throw Ox_ErrnoException(
      kStoreFailed, std::generic_category().message(error) + ": cannot " + action + " " + path, "");
}

OutputFile::OutputFile(std::string filePath) : path(std::move(filePath)) {}

OutputFile::~OutputFile() {
  if (fd >= 0) {
    ::close(fd);
  }
}

void OutputFile::append(Bytes head, Bytes data) {
  if (head.size() + data.size() >= kBufferSize) {
    flush();
    write(head);
    write(data);
    commit(1, head.size() + data.size());
    return;
  }
  buffer.reserve(2 * kBufferSize);
  buffer.insert(buffer.end(), head.begin(), head.end());
  buffer.insert(buffer.end(), data.begin(), data.end());
  ++bufferedRecords;
  if (buffer.size() >= kBufferSize) {
    flush();
  }
}

void OutputFile::flush() {
  write(buffer);
  commit(bufferedRecords, buffer.size());
  buffer.clear();
  bufferedRecords = 0;
}

void OutputFile::finish(const std::string& finalPath) {
  flush();
  if (!created) {
    return;
  }
  if (::close(std::exchange(fd, -1)) != 0) {
    throwStoreFailed(errno, "write", path);
  }
  if (std::rename(path.c_str(), finalPath.c_str()) != 0) {
    throwStoreFailed(errno, "rename", path);
  }
}

void OutputFile::write(Bytes bytes) {
  if (!bytes.empty() && fd < 0) {
    create();
  }
  while (!bytes.empty()) {
    const ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) {
      continue;
    }
    if (written < 0) {
      const int error = errno;
      if (::ftruncate(fd, end) != 0) {
        ErrorA(errno, "cannot take half a record back from %s", path.c_str());
      }
      throwStoreFailed(error, "write", path);
    }
    bytes = bytes.subspan(static_cast<std::size_t>(written));
  }
}

void OutputFile::commit(std::uint64_t recordCount, std::uint64_t byteCount) {
  writtenRecords += recordCount;
  writtenBytes += byteCount;
  end += static_cast<off_t>(byteCount);
}

void OutputFile::create() {
  fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (fd < 0) {
    throwStoreFailed(errno, "create", path);
  }
  created = true;
  end = ::lseek(fd, 0, SEEK_END);
}

}  // namespace orvaned
