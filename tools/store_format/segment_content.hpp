#pragma once

#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "shm/fd.hpp"
#include "store_format/frame_reader.hpp"

namespace tool {

// Reads the data of a stored file from its begin to its end; a file that is compressed, as its name
// says, is decompressed meanwhile.
//
//   SegmentContent content(openStored(path), path);
//   for (auto bytes = content.next(); !bytes.empty(); bytes = content.next()) { ... }
class SegmentContent {
 public:
  // Error messages name the file by `path`. A plain file is read into `block`; if that is empty,
  // into a block of this object. Throws ZstdMissing if this program cannot decompress the file.
  SegmentContent(Fd file, std::string path, std::span<unsigned char> block = {});

  static constexpr std::uint64_t kAny = std::numeric_limits<std::uint64_t>::max();

  // Returns the next bytes of the data, at most `most`, valid until the next call; nothing after
  // the last ones, until the file grows. Throws std::runtime_error if the file cannot be read, or
  // is compressed and not valid. Only an unfinished file may end before its frame does.
  std::span<const unsigned char> next(std::uint64_t most = kAny);

  // Leaves out so many bytes of the data, or all that there are. Throws like next().
  void skip(std::uint64_t bytes);

  // How many bytes of the file were read so far.
  std::uint64_t fileBytes() const { return frame ? frame->fileBytes() : plainBytes; }

  // After the last bytes: how many bytes the file has if it is compressed, otherwise 0.
  std::uint64_t storedBytes() const { return frame ? frame->fileBytes() : 0; }

 private:
  std::span<const unsigned char> nextPlain(std::uint64_t most);
  std::span<const unsigned char> nextBlock();

  Fd file;
  const std::string path;
  std::optional<FrameReader> frame;
  std::span<const unsigned char> left;  // of the frame's last block
  std::unique_ptr<unsigned char[]> ownBlock;
  std::span<unsigned char> block;
  std::uint64_t plainBytes = 0;
};

}  // namespace tool
