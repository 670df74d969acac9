#pragma once

#include <sys/types.h>

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace orvaned {

// A file that records are appended to, through a buffer. It is created with its first byte, and it
// holds whole records only: a write that fails is undone.
// Throws Ox_ErrnoException (kStoreFailed), naming the cause and the path.
class OutputFile {
 public:
  using Bytes = std::span<const unsigned char>;

  explicit OutputFile(std::string path);
  ~OutputFile();  // closes the file; what is still in the buffer is lost
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  // Appends one record, of which `data` may be a part that is better not copied.
  void append(Bytes head, Bytes data = {});

  // Writes what is in the buffer. When that fails, it may be tried again.
  void flush();

  // Flushes, closes, and gives the file its final name, if there is a file. Ends its use.
  void finish(const std::string& finalPath);

  bool exists() const { return created; }

  // What this object has brought into the file; after a flush, all that was appended.
  std::uint64_t records() const { return writtenRecords; }
  std::uint64_t bytes() const { return writtenBytes; }

 private:
  void write(Bytes bytes);
  void commit(std::uint64_t recordCount, std::uint64_t byteCount);
  void create();

  const std::string path;
  int fd = -1;
  bool created = false;
  off_t end = 0;  // of the last whole record in the file
  std::vector<unsigned char> buffer;
  std::uint64_t bufferedRecords = 0;
  std::uint64_t writtenRecords = 0;
  std::uint64_t writtenBytes = 0;
};

// Throws Ox_ErrnoException (kStoreFailed) with the text of `error`, an errno value: the cause
// first, because an answer has room for 127 characters and a path may be long.
[[noreturn]] void throwStoreFailed(int error, const std::string& action, const std::string& path);

}  // namespace orvaned
