#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "store/stream_directory.hpp"

// What a test has done with files: each call to the system and to a folder, in order. This
// executable defines write, close, fdatasync and sync_file_range itself.
namespace orvane::test {

struct FileCalls {
  std::vector<std::string> made = {};

  // The next call of this name fails so, once.
  std::string failing = {};
  int failure = 0;

  // Writes say that they took everything, and write nothing.
  bool diskWithoutEnd = false;

  // The next write takes so many bytes only.
  std::size_t nextWrite = SIZE_MAX;

  // Done in the next write.
  std::function<void()> duringWrite = {};

  // Done in the next change of a name.
  std::function<void()> duringRename = {};

  // Done in each fdatasync of a file that is not recorded, in the caller's thread; returns what the
  // call fails with, or 0.
  std::function<int(const std::string& path)> duringSync = {};
};

// Each test begins with a new one of these.
FileCalls& fileCalls();

inline void failNext(const std::string& call, int error) {
  fileCalls().failing = call;
  fileCalls().failure = error;
}

// A folder whose calls are among those made.
class RecordedDirectory : public orvaned::LocalDirectory {
 public:
  using LocalDirectory::LocalDirectory;

  tool::Fd append(const std::string& name) override;
  tool::Fd read(const std::string& name) override;
  void truncate(const std::string& name, std::uint64_t size) override;
  void remove(const std::string& name) override;
  void rename(const std::string& from, const std::string& to) override;
  void sync() override;

 private:
  // Fails instead, when that is due.
  void note(const std::string& call, const std::string& arguments) const;
};

}  // namespace orvane::test
