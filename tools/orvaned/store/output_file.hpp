#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "shm/fd.hpp"
#include "store/stream_directory.hpp"
#include "sync.hpp"

namespace orvaned {

// A file that records are appended to, through a buffer. It is created with its first byte, and
// holds only whole records: a write that fails is undone.
// Throws Ox_ErrnoException (orvane::kStoreFailed), naming the cause and the path.
class OutputFile {
 public:
  using Bytes = std::span<const unsigned char>;

  // `folder` must outlive this object. If it is null, the object only counts.
  OutputFile(StreamDirectory* folder, std::string name, Sync sync);
  OutputFile(const OutputFile&) = delete;  // the destructor loses what is still in the buffer
  OutputFile& operator=(const OutputFile&) = delete;

  // Appends one record: first `head`, then `data`, which is not copied if it is large.
  void append(Bytes head, Bytes data = {});

  // Writes what is in the buffer. May be tried again.
  void writeOut();

  // The same; also fails when the file was removed. With Sync::always, brings it onto the disk.
  void flush();

  // Writes what is in the buffer and brings the data onto the disk, unless Sync::none.
  void settle();

  // Settles, closes, and gives the file its final name, if there is a file. Ends its use.
  void finish(const std::string& finalName);

  // Removes the file, if there is one, instead. A failure is only logged.
  void discard();

  // Continues an existing file after its first `size` bytes.
  void resume(std::uint64_t size);

  // Goes on after what another process has appended to the file.
  void catchUp();

  // What this object has written to the file; after a flush, everything that was appended.
  std::uint64_t records() const { return writtenRecords; }
  std::uint64_t bytes() const { return writtenBytes; }
  std::uint32_t checksum() const { return writtenChecksum; }

 private:
  void write(Bytes bytes);
  void takeBack();
  void remove();
  void commit(std::uint64_t recordCount, Bytes head, Bytes data);
  void startWriting();
  void create();
  void requireName() const;
  void syncData();

  StreamDirectory* const folder;
  const std::string name;
  const Sync sync;
  tool::Fd fd;
  bool created = false;
  bool nameSynced = false;
  bool dataSynced = true;
  off_t end = 0;  // of the last whole record in the file
  off_t writingUpTo = 0;
  std::unique_ptr<unsigned char[]> buffer;
  std::size_t buffered = 0;
  std::uint64_t bufferedRecords = 0;
  std::uint64_t writtenRecords = 0;
  std::uint64_t writtenBytes = 0;
  std::uint32_t writtenChecksum = 0;
};

}  // namespace orvaned
