#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "shm/fd.hpp"
#include "store_format/zstd.hpp"

namespace tool {

// Reads the one zstd frame of a file block by block, as far as its blocks are whole: if a server
// was killed, the last block can be incomplete, and the frame has no end.
//
//   magic word 4, descriptor 1, more of the header 0 to 13
//   for each block: header 3 (last 1 bit, type 2 bits, size 21 bits, little-endian), content
//   checksum 4, if the descriptor says so
class FrameReader {
 public:
  // Error messages name the file by `path`. Throws ZstdMissing.
  FrameReader(Fd file, std::string path);

  // Returns the data of the next block that has any; nothing after the last whole block. The data
  // is valid until the next call. Throws std::runtime_error if the file cannot be read, is no zstd
  // frame, or goes on after it.
  std::span<const unsigned char> next();

  // After the last block: does the frame have its end?
  bool isComplete() const { return complete; }

  // How many bytes of the file are the header and the whole blocks that were returned so far (none
  // without a whole header), and how many were read; after the last block, that is the whole file.
  std::uint64_t wholeBytes() const { return taken; }
  std::uint64_t fileBytes() const { return taken + buffered; }

 private:
  bool takeHeader();
  bool takeBlock();
  bool take(std::size_t size);
  bool have(std::size_t size);
  std::size_t headerSize() const;
  [[noreturn]] void failInvalid() const;
  const unsigned char* bytes() const { return buffer.get() + begin; }

  const Fd file;
  const std::string path;
  Decompressor decompressor;
  std::unique_ptr<unsigned char[]> buffer;
  std::size_t begin = 0;     // of what was read and not taken yet
  std::size_t buffered = 0;  // how much that is
  std::uint64_t taken = 0;
  std::span<const unsigned char> data;  // of the last block that was taken
  bool hasChecksum = false;
  bool complete = false;
};

}  // namespace tool
