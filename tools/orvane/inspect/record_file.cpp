#include "inspect/record_file.hpp"

#include <sys/stat.h>

#include <cerrno>
#include <stdexcept>

#include "store_format/stored_file.hpp"

namespace tool {
namespace {

constexpr std::size_t kHeader = orvane::pvk_shm_message_t::kSerializedSize;

// A record's type is anything, but no producer uses the magic word of a batch.
constexpr std::uint32_t kNoType = orvane::ShmBatch::MetaData::kMagic;

}  // namespace

RecordFile::RecordFile(const std::string& path)
    : path(path), file(fdopen(openStored(path).release(), "r"), std::fclose) {
  struct stat status = {};
  if (!file || fstat(fileno(file.get()), &status) != 0) {
    failToRead(path, errno);
  }
  size = static_cast<std::uint64_t>(status.st_size);
}

std::optional<orvane::ShmBatch::Entry> RecordFile::next() {
  if (rest() < kHeader) {
    return std::nullopt;
  }
  unsigned char bytes[kHeader];
  readBytes(bytes, sizeof bytes);
  orvane::pvk_shm_message_t header;
  try {
    header.deserializeFromBuffer(bytes);
  } catch (const Ox_ErrnoException&) {
    return std::nullopt;
  }
  if (header.type == kNoType || header.len > rest() - kHeader) {
    return std::nullopt;
  }
  data.resize(header.len);
  readBytes(data.data(), data.size());
  read += kHeader + header.len;
  return orvane::ShmBatch::Entry(header, data.empty() ? nullptr : data.data());
}

// The file is as long as it was: it may only grow.
void RecordFile::readBytes(unsigned char* bytes, std::size_t count) {
  if (std::fread(bytes, 1, count, file.get()) != count) {
    failToRead(path, errno);
  }
}

// A FIFO must not be opened for a look: its writer would lose its reader.
bool isRecordFile(const std::string& path) {
  struct stat status = {};
  if (lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
    return false;
  }
  try {
    return RecordFile(path).next().has_value();
  } catch (const std::runtime_error&) {
    return false;
  }
}

}  // namespace tool
