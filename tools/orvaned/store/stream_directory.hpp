#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "shm/fd.hpp"

namespace orvaned {

// The result of finishing a segment in the background.
struct FinishResult {
  bool listed = false;  // the manifest has its line
  std::string error;    // empty: all of it is done
};

// The folder of one stream: LocalDirectory uses the folder itself, BrokeredDirectory asks the
// broker of a confined process. Every name is that of a file in the folder. Nothing here follows a
// symbolic link or opens anything but a regular file.
//
// Each call throws Ox_ErrnoException (orvane::kStoreFailed) with the cause and the path.
class StreamDirectory {
 public:
  explicit StreamDirectory(std::string folder) : folder(std::move(folder)) {}
  virtual ~StreamDirectory() = default;
  StreamDirectory(const StreamDirectory&) = delete;
  StreamDirectory& operator=(const StreamDirectory&) = delete;

  // Opens a file for appending. A new file is accessible to its owner only.
  virtual tool::Fd append(const std::string& name) = 0;

  // Opens a file for reading.
  virtual tool::Fd read(const std::string& name) = 0;

  // Cuts the file after its first `size` bytes.
  virtual void truncate(const std::string& name, std::uint64_t size) = 0;

  virtual void remove(const std::string& name) = 0;
  virtual void rename(const std::string& from, const std::string& to) = 0;

  // Brings the names in the folder onto the disk.
  virtual void sync() = 0;

  // All files in the folder, in any order.
  virtual std::vector<std::string> names() = 0;

  // The folder's descriptor, which holds its lock; -1 if there is none.
  virtual int lockedFile() const { return -1; }

  // Can finish a segment (segment_finish.hpp) while its caller goes on, one segment at a time?
  virtual bool finishesInBackground() const { return false; }
  virtual void startFinish(const std::string& /*finalName*/, const std::string& /*line*/) {}

  // The result of the last start. If not `wait`, nothing while the segment is not finished yet.
  virtual std::optional<FinishResult> finishResult(bool /*wait*/) { return std::nullopt; }

  // For messages only.
  std::string pathOf(const std::string& name) const { return folder + "/" + name; }
  const std::string& path() const { return folder; }

 private:
  const std::string folder;
};

// The folder itself, held by a descriptor: a later folder of the same name is not used.
class LocalDirectory : public StreamDirectory {
 public:
  // If the folder cannot be opened, each call fails.
  explicit LocalDirectory(const std::string& folderPath);

  // The folder is still at `madeAt` and is about to be renamed to its final path.
  LocalDirectory(std::string folderPath, const std::string& madeAt);

  // Locks the folder for as long as this object lives. False when another process has the lock, or
  // when the folder could not be opened.
  bool lock();

  bool isOpen() const { return openError == 0; }
  int lockedFile() const override { return folderFd.get(); }

  tool::Fd append(const std::string& name) override;
  tool::Fd read(const std::string& name) override;
  void truncate(const std::string& name, std::uint64_t size) override;
  void remove(const std::string& name) override;
  void rename(const std::string& from, const std::string& to) override;
  void sync() override;
  std::vector<std::string> names() override;

 private:
  tool::Fd open(const std::string& name, int flags, const char* action) const;
  [[noreturn]] void fail(const char* action, const std::string& name, int error) const;

  const tool::Fd folderFd;
  const int openError;
};

// Throws Ox_ErrnoException (orvane::kStoreFailed) with the text of `error`, an errno value. The
// cause comes first, because a response has room for 127 characters and a path may be long.
[[noreturn]] void throwStoreFailed(int error, const std::string& action, const std::string& path);

// Brings the names in a folder onto the disk. Throws the same.
void syncFolder(const std::string& path);

}  // namespace orvaned
