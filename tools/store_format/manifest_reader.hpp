#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "shm/fd.hpp"
#include "store_format/manifest_lines.hpp"
#include "store_format/stored_file.hpp"

namespace tool {

// Reads a manifest line by line, because a stream may have more segments than fit in memory.
class ManifestReader {
 public:
  explicit ManifestReader(Fd file) : file(std::move(file)) {}

  // Returns the next line without its end. Returns nothing at the end of the file, and when reading
  // fails. A line that has no end is incomplete and is not returned.
  std::optional<std::string> next();

  // Returns how many bytes the lines that next() has returned have in the file.
  std::uint64_t bytes() const { return returnedBytes; }

  // After the last line: what follows it in the file, an incomplete line or "", and the errno value
  // if reading failed, or 0.
  const std::string& rest() const { return buffered; }
  int error() const { return readError; }

 private:
  Fd file;
  std::vector<char> block = std::vector<char>(65536);
  std::string buffered;
  std::uint64_t returnedBytes = 0;
  int readError = 0;
};

// Returns all lines of a finished manifest, and an incomplete last line, too. Throws
// std::runtime_error.
std::vector<std::string> linesOfManifest(const std::string& path);

// A file with a line in the manifest.
struct ListedFile {
  std::string name;  // empty if the line is invalid
  Content content;
};

ListedFile fileOf(const SegmentSummary& segment);
ListedFile fileOf(const OtherRecords& others);
ListedFile fileOf(const UnfinishedFile& unfinished);

// Returns the file that a line lists, or nothing if the line lists none.
std::optional<ListedFile> fileIn(const std::string& line);

}  // namespace tool
