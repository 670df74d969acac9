#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "store_format/manifest_reader.hpp"
#include "store_format/segment_content.hpp"
#include "store_format/stored_file.hpp"

namespace tool {

// Prints the segments of a stream one after another to standard output. A file is read twice: its
// checksum is that of the whole file, none of which may be printed before it was compared, and a
// segment may be larger than the memory. Each call throws Failure if standard output cannot be
// written.
class SegmentPrinter {
 public:
  // Error messages name the stream by its folder.
  explicit SegmentPrinter(std::string folder) : folder(std::move(folder)) {}

  // Prints the whole next segment, which has ended, or what printOpen() has not printed of it.
  // Throws Failure if its file differs from what the manifest lists: as long as nothing of it was
  // printed, before anything is.
  void print(const ListedFile& listed);

  // Prints the next segment as it is, also if it is damaged. Returns what is wrong with it, or "".
  std::string printAnyway(const ListedFile& listed);

  // Prints those of the first `bytes` bytes of the next segment that were not printed yet; a later
  // call may print more of it, also from another file: a compressed one takes the place of a plain
  // one.
  void printOpen(const std::string& file, std::uint64_t bytes);

 private:
  void copy(SegmentContent& content, std::uint64_t end);
  void copyRest(const std::string& path);
  std::unique_ptr<SegmentContent> restOf(const std::string& path) const;
  [[noreturn]] void failDamaged(const ListedFile& listed, const std::string& fault) const;

  const std::string folder;
  Content printed;  // of the segment that printOpen() has begun
  std::string openPath;
  std::unique_ptr<SegmentContent> openRest;  // kept: a compressed file can only be read in order
};

}  // namespace tool
