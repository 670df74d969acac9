#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <orvane/orvane.hpp>
#include <string>
#include <vector>

namespace tool {

// Reads a file of records as they came, with their headers: other-records of a stream, or the
// records of a queue that came outside a stream. Throws std::runtime_error if the file cannot be
// read.
class RecordFile {
 public:
  explicit RecordFile(const std::string& path);

  // Returns the next record, whose data is valid until the next call. Returns nothing at the end of
  // the file, or where no whole record follows.
  std::optional<orvane::ShmBatch::Entry> next();

  // Returns where the last record ends, and how many bytes follow there.
  std::uint64_t position() const { return read; }
  std::uint64_t rest() const { return size - read; }

 private:
  void readBytes(unsigned char* bytes, std::size_t count);

  const std::string path;
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file;
  std::uint64_t size = 0;
  std::uint64_t read = 0;
  std::vector<unsigned char> data;
};

// Does a file begin with a record, and not with a capture or a batch? False if it cannot be read.
bool isRecordFile(const std::string& path);

}  // namespace tool
