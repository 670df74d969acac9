#include "orvaned/store/file_calls.hpp"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <map>
#include <utility>

namespace orvane::test {

namespace {

// The files that were opened, by their descriptors: calls on others are none of the
// test's.
std::map<int, std::string>& recordedFiles() {
  static std::map<int, std::string> files;
  return files;
}

class FreshForEachTest : public testing::EmptyTestEventListener {
  void OnTestStart(const testing::TestInfo&) override {
    fileCalls() = FileCalls();
    recordedFiles().clear();
  }
};

[[maybe_unused]] const bool isListening = [] {
  testing::UnitTest::GetInstance()->listeners().Append(new FreshForEachTest);
  return true;
}();

bool isRecorded(int fd) {
  return recordedFiles().contains(fd);
}

void record(const std::string& call, int fd, const std::string& arguments = "") {
  fileCalls().made.push_back(call + " " + recordedFiles().at(fd) + arguments);
}

bool isToFail(const std::string& call) {
  if (fileCalls().failing != call) {
    return false;
  }
  fileCalls().failing.clear();
  errno = fileCalls().failure;
  return true;
}

}  // namespace

FileCalls& fileCalls() {
  static FileCalls calls;
  return calls;
}

tool::Fd RecordedDirectory::append(const std::string& name) {
  note("append", " " + name);
  tool::Fd file = LocalDirectory::append(name);
  recordedFiles()[file.get()] = name;
  return file;
}
tool::Fd RecordedDirectory::read(const std::string& name) {
  note("read", " " + name);
  tool::Fd file = LocalDirectory::read(name);
  recordedFiles()[file.get()] = name;
  return file;
}
void RecordedDirectory::truncate(const std::string& name, std::uint64_t size) {
  note("truncate", " " + name + " " + std::to_string(size));
  LocalDirectory::truncate(name, size);
}
void RecordedDirectory::remove(const std::string& name) {
  note("remove", " " + name);
  LocalDirectory::remove(name);
}
void RecordedDirectory::rename(const std::string& from, const std::string& to) {
  note("rename", " " + from + " " + to);
  if (fileCalls().duringRename) {
    std::exchange(fileCalls().duringRename, nullptr)();
  }
  LocalDirectory::rename(from, to);
}
void RecordedDirectory::sync() {
  note("sync", "");
  LocalDirectory::sync();
}

void RecordedDirectory::note(const std::string& call, const std::string& arguments) const {
  fileCalls().made.push_back(call + arguments);
  if (isToFail(call)) {
    orvaned::throwStoreFailed(errno, call, path());
  }
}

}  // namespace orvane::test

using namespace orvane::test;

// These take the place of the C library's for everything that this executable loads.
#define REPLACED extern "C" __attribute__((visibility("default")))

REPLACED ssize_t write(int fd, const void* buffer, std::size_t size) {
  if (isRecorded(fd)) {
    record("write", fd, " " + std::to_string(size));
    if (fileCalls().duringWrite) {
      std::exchange(fileCalls().duringWrite, nullptr)();
    }
    if (isToFail("write")) {
      return -1;
    }
    if (fileCalls().diskWithoutEnd) {
      return static_cast<ssize_t>(size);
    }
    size = std::min(size, std::exchange(fileCalls().nextWrite, SIZE_MAX));
    if (size == 0) {
      errno = EIO;  // from a call before: this one says no error
      return 0;
    }
  }
  return syscall(SYS_write, fd, buffer, size);
}

REPLACED int close(int fd) {
  if (isRecorded(fd)) {
    record("close", fd);
    recordedFiles().erase(fd);
    syscall(SYS_close, fd);
    return isToFail("close") ? -1 : 0;
  }
  return static_cast<int>(syscall(SYS_close, fd));
}

REPLACED int fdatasync(int fd) {
  if (isRecorded(fd)) {
    record("fdatasync", fd);
    if (isToFail("fdatasync")) {
      return -1;
    }
  } else if (fileCalls().duringSync) {
    const std::string descriptor = "/proc/self/fd/" + std::to_string(fd);
    errno = fileCalls().duringSync(std::filesystem::read_symlink(descriptor));
    if (errno != 0) {
      return -1;
    }
  }
  return static_cast<int>(syscall(SYS_fdatasync, fd));
}

REPLACED int sync_file_range(int fd, off_t from, off_t count, unsigned int flags) {
  if (isRecorded(fd)) {
    record("sync_file_range", fd,
           " " + std::to_string(from) + " " + std::to_string(count) + " " + std::to_string(flags));
  }
  return static_cast<int>(syscall(SYS_sync_file_range, fd, from, count, flags));
}
