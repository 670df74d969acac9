#include "store/output_file.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <orvane/orvane.hpp>
#include <utility>

#include "log.hpp"
#include "store_format/checksum.hpp"

namespace orvaned {
namespace {

// Smaller records share a write; a record of this size or more is written without a copy. (From
// this size on, the copy costs as much as the system call.)
constexpr std::size_t kWrittenDirectly = 8192;
constexpr std::size_t kBufferSize = 65536;

constexpr off_t kStartWriting = 8 << 20;

// Not fstat(), which may use a system call with a path: a confined process may make none of these.
int statusOf(const tool::Fd& file, struct stat& status) {
  return static_cast<int>(::syscall(SYS_fstat, file.get(), &status));
}

// Does what can fail without a consequence.
void logFailure(const char* function, const char* what, const std::function<void()>& task) {
  try {
    task();
  } catch (const Ox_ErrnoException& e) {
    const orvane::server::Logger log("store");
    log.log(orvane::server::LEVEL_ERROR, function, e.status(), "cannot %s: %s", what,
            doublePercent(e.what()).c_str());
  }
}

}  // namespace

OutputFile::OutputFile(StreamDirectory* folder, std::string name, Sync sync)
    : folder(folder), name(std::move(name)), sync(sync) {}

void OutputFile::append(Bytes head, Bytes data) {
  const std::size_t size = head.size() + data.size();
  if (folder == nullptr) {
    ++writtenRecords;
    writtenBytes += size;
    return;
  }
  if (size >= kWrittenDirectly || size > kBufferSize - buffered) {
    writeOut();
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
  writeOut();
  requireName();
  if (sync == Sync::always) {
    syncData();
    if (created && !nameSynced) {
      folder->sync();
      nameSynced = true;
    }
  }
}

void OutputFile::settle() {
  writeOut();
  if (sync != Sync::none) {
    syncData();
  }
}

// The data is on the disk before the file gets its final name, and the name is on the disk before
// anyone learns of it.
void OutputFile::finish(const std::string& finalName) {
  settle();
  if (!created) {
    return;
  }
  if (::close(fd.release()) != 0) {
    throwStoreFailed(errno, "write", folder->pathOf(name));
  }
  folder->rename(name, finalName);
  if (sync != Sync::none) {
    folder->sync();
  }
}

void OutputFile::discard() {
  if (created) {
    logFailure(__func__, "remove a file that is not needed", [this] { remove(); });
  }
}

void OutputFile::resume(std::uint64_t size) {
  create();
  end = static_cast<off_t>(size);
  folder->truncate(name, size);
  dataSynced = false;  // the process that wrote it may not have synced it
}

void OutputFile::catchUp() {
  end = ::lseek(fd.get(), 0, SEEK_END);
}

void OutputFile::writeOut() {
  const Bytes bytes(buffer.get(), buffered);
  write(bytes);
  commit(bufferedRecords, {}, bytes);
  buffered = 0;
  bufferedRecords = 0;
}

void OutputFile::write(Bytes bytes) {
  if (!bytes.empty() && fd.get() < 0) {
    create();
  }
  while (!bytes.empty()) {
    const ssize_t written = ::write(fd.get(), bytes.data(), bytes.size());
    if (written >= 0) {
      bytes = bytes.subspan(static_cast<std::size_t>(written));
    } else if (errno != EINTR) {
      const int error = errno;
      takeBack();
      throwStoreFailed(error, "write", folder->pathOf(name));
    }
  }
}

// Removes what a failed write left: half a record, or an empty file.
void OutputFile::takeBack() {
  logFailure(__func__, "take half a record back", [this] {
    if (end == 0) {
      remove();
    } else {
      folder->truncate(name, static_cast<std::uint64_t>(end));
    }
  });
}

void OutputFile::remove() {
  fd.reset();
  created = false;
  folder->remove(name);
}

void OutputFile::commit(std::uint64_t recordCount, Bytes head, Bytes data) {
  const std::uint64_t byteCount = head.size() + data.size();
  writtenRecords += recordCount;
  writtenBytes += byteCount;
  writtenChecksum = tool::checksumOf(data, tool::checksumOf(head, writtenChecksum));
  end += static_cast<off_t>(byteCount);
  dataSynced = dataSynced && byteCount == 0;
  startWriting();
}

// The disk already writes while more data comes, instead of everything at the next sync.
void OutputFile::startWriting() {
  if (sync != Sync::none && end - writingUpTo >= kStartWriting) {
    ::sync_file_range(fd.get(), writingUpTo, end - writingUpTo, SYNC_FILE_RANGE_WRITE);
    writingUpTo = end;
  }
}

void OutputFile::create() {
  fd = folder->append(name);
  created = true;
  catchUp();
}

// A file that was removed accepts every byte and loses all of them when it is closed.
void OutputFile::requireName() const {
  struct stat status = {};
  if (fd.get() >= 0 && statusOf(fd, status) == 0 && status.st_nlink == 0) {
    throwStoreFailed(ENOENT, "write", folder->pathOf(name));
  }
}

void OutputFile::syncData() {
  if (dataSynced) {
    return;
  }
  if (::fdatasync(fd.get()) != 0) {
    throwStoreFailed(errno, "sync", folder->pathOf(name));
  }
  dataSynced = true;
}

}  // namespace orvaned
