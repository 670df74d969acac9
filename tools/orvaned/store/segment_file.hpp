#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "store/output_file.hpp"
#include "store_format/zstd.hpp"

namespace orvaned {

// The file of one segment. With a compressor, the first MiB of data, or all of it if there is less,
// decides whether the file is compressed: until then it is plain; if compression makes it smaller,
// the next flush writes a compressed file, with everything so far, in place of the plain one. This
// does not change afterwards. Everything that was flushed can be read from the file. Throws
// Ox_ErrnoException (orvane::kStoreFailed).
class SegmentFile {
 public:
  using Bytes = OutputFile::Bytes;

  // `compressor` may be null; otherwise no other file uses it before end(). If `folder` is null,
  // the object only counts.
  SegmentFile(StreamDirectory* folder, const std::string& name, Sync sync,
              tool::Compressor* compressor);

  void append(Bytes data);

  // No more data comes.
  void end();

  // These are as in OutputFile. A compressed file gets the data of one flush as a whole or not at
  // all. If a compressed file cannot be written at first, the plain one is left.
  void flush();
  void settle();
  void finish();

  // The file's final name.
  std::string name() const;

  // The data that is in the file.
  std::uint64_t records() const { return compressed ? written.records : plain->records(); }
  std::uint64_t bytes() const { return compressed ? written.bytes : plain->bytes(); }
  std::uint32_t checksum() const { return compressed ? written.checksum : plain->checksum(); }

  // The bytes of the file if it is compressed, otherwise 0.
  std::uint64_t stored() const { return compressed ? compressed->bytes() : 0; }

 private:
  struct Amount {
    std::uint64_t records = 0;
    std::uint64_t bytes = 0;
    std::uint32_t checksum = 0;
  };

  void compress(Bytes data);
  void decide();
  void writeCompressed();
  void stayPlain();

  StreamDirectory* const folder;
  const std::string plainName;
  const Sync sync;
  tool::Compressor* compressor;            // null: the data is plain, or has ended
  std::unique_ptr<OutputFile> plain;       // null: a compressed file has taken its place
  std::unique_ptr<OutputFile> compressed;  // null: the file is plain, or not decided yet
  std::vector<unsigned char> output;       // of the compressor, for the compressed file
  Amount added;                            // to the compressor
  Amount written;                          // of that, in the compressed file
};

}  // namespace orvaned
