#include "output_file.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <orvane/orvane.hpp>
#include <system_error>
#include <utility>

#include "checksum.hpp"
#include "log.hpp"
#include "server_status.hpp"

namespace orvaned {
namespace {

// Small records share a write; one of this size or more is written from where it lies. (Copying it
// costs as much as the system call from there on.)
constexpr std::size_t kWrittenDirectly = 8192;
constexpr std::size_t kBufferSize = 65536;

constexpr off_t kStartWriting = 8 << 20;

std::string folderOf(const std::string& path) {
  return std::filesystem::path(path).parent_path().string();
}

}  // namespace

void throwStoreFailed(int error, const std::string& action, const std::string& path) {
  throw Ox_ErrnoException(
      kStoreFailed, std::generic_category().message(error) + ": cannot " + action + " " + path, "");
}

void syncFolder(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const int error = fd < 0 || ::fsync(fd) != 0 ? errno : 0;
  if (fd >= 0) {
    ::close(fd);
  }
  if (error != 0) {
    throwStoreFailed(error, "sync", path);
  }
}

OutputFile::OutputFile(std::string filePath, Sync syncMode)
    : path(std::move(filePath)),
      sync(syncMode),
      isKept(!path.starts_with(std::string(kNullStore) + "/")) {}

OutputFile::~OutputFile() {
  if (fd >= 0) {
    ::close(fd);
  }
}

void OutputFile::append(Bytes head, Bytes data) {
  const std::size_t size = head.size() + data.size();
  if (!isKept) {
    ++writtenRecords;
    writtenBytes += size;
    return;
  }
  if (size >= kWrittenDirectly || size > kBufferSize - buffered) {
    writeBuffer();
  }
  if (size >= kWrittenDirectly) {
    write(head);
    write(data);
    commit(1, head, data);
    return;
  }
  if (!buffer) {
    buffer = std::make_unique_for_overwrite<unsigned char[]>(kBufferSize);
  }
  for (const Bytes bytes : {head, data}) {
    std::copy(bytes.begin(), bytes.end(), &buffer[buffered]);
    buffered += bytes.size();
  }
  ++bufferedRecords;
}

void OutputFile::flush() {
  writeBuffer();
  requireName();
  if (sync == Sync::always) {
    syncData();
    if (created && !nameSynced) {
      syncFolder(folderOf(path));
      nameSynced = true;
    }
  }
}

void OutputFile::settle() {
  writeBuffer();
  if (sync != Sync::none) {
    syncData();
  }
}

// The data is on the disk before the name says so, and the name before anybody is told.
void OutputFile::finish(const std::string& finalPath) {
  settle();
  if (!created) {
    return;
  }
  if (::close(std::exchange(fd, -1)) != 0) {
    throwStoreFailed(errno, "write", path);
  }
  if (std::rename(path.c_str(), finalPath.c_str()) != 0) {
    throwStoreFailed(errno, "rename", path);
  }
  if (sync != Sync::none) {
    syncFolder(folderOf(finalPath));
  }
}

void OutputFile::resume(std::uint64_t size) {
  create();
  end = static_cast<off_t>(size);
  if (::ftruncate(fd, end) != 0) {
    throwStoreFailed(errno, "write", path);
  }
  dataSynced = false;  // whoever wrote it may not have come to that
}

void OutputFile::writeBuffer() {
  const Bytes bytes(buffer.get(), buffered);
  write(bytes);
  commit(bufferedRecords, {}, bytes);
  buffered = 0;
  bufferedRecords = 0;
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
      takeBack();
      throwStoreFailed(error, "write", path);
    }
    bytes = bytes.subspan(static_cast<std::size_t>(written));
  }
}

// What a failed write left: half a record, or a file without a byte.
void OutputFile::takeBack() {
  if (end == 0) {
    ::unlink(path.c_str());
    ::close(std::exchange(fd, -1));
    created = false;
  } else if (::ftruncate(fd, end) != 0) {
    const int error = errno;
    const orvane::server::Logger log("store");
    log.log(orvane::server::LEVEL_ERROR, __func__, error, "cannot take half a record back from %s",
            doublePercent(path).c_str());
  }
}

void OutputFile::commit(std::uint64_t recordCount, Bytes head, Bytes data) {
  const std::uint64_t byteCount = head.size() + data.size();
  writtenRecords += recordCount;
  writtenBytes += byteCount;
  writtenChecksum = checksumOf(data, checksumOf(head, writtenChecksum));
  end += static_cast<off_t>(byteCount);
  dataSynced = dataSynced && byteCount == 0;
  startWriting();
}

// The disk works while the rest is still coming, instead of all at once when it is synced.
void OutputFile::startWriting() {
  if (sync != Sync::none && end - writingUpTo >= kStartWriting) {
    ::sync_file_range(fd, writingUpTo, end - writingUpTo, SYNC_FILE_RANGE_WRITE);
    writingUpTo = end;
  }
}

void OutputFile::create() {
  fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (fd < 0) {
    throwStoreFailed(errno, "create", path);
  }
  created = true;
  end = ::lseek(fd, 0, SEEK_END);
}

// A file without a name takes every byte, and all of them are lost when it is closed.
void OutputFile::requireName() const {
  struct stat status = {};
  if (fd >= 0 && ::fstat(fd, &status) == 0 && status.st_nlink == 0) {
    throwStoreFailed(ENOENT, "write", path);
  }
}

void OutputFile::syncData() {
  if (dataSynced) {
    return;
  }
  if (::fdatasync(fd) != 0) {
    throwStoreFailed(errno, "sync", path);
  }
  dataSynced = true;
}

}  // namespace orvaned
