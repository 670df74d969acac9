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
  // Error messages name the file by `path`.
  ManifestReader(Fd file, std::string path) : file(std::move(file)), path(std::move(path)) {}

  // Returns the next line without its end. Returns nothing at the end of the file, and when reading
  // fails. A line that has no end is incomplete and is not returned. Throws std::runtime_error if
  // the first line names a format that this release does not know.
  std::optional<std::string> next();

  // The manifest's format, once its first line has been read; 0: that line names none.
  int format() const { return knownFormat; }

  // Returns the CRC-32 of all lines that next() has returned.
  std::uint32_t checksum() const { return allChecksum; }

  // After the last line: what shows that the manifest is not as it was written, or "". In format 1
  // hardly any change can be found.
  std::string fault() const;

  // Returns how many bytes the lines that next() has returned have in the file.
  std::uint64_t bytes() const { return returnedBytes; }

  // After the last line: what follows it in the file, an incomplete line or "", and the errno value
  // if reading failed, or 0.
  const std::string& rest() const { return buffered; }
  int error() const { return readError; }

 private:
  void count(const std::string& line);

  Fd file;
  std::string path;
  int knownFormat = 0;
  std::string lastLine;
  std::uint32_t checksumBefore = 0;  // of the lines before the last one
  std::uint32_t allChecksum = 0;
  std::vector<char> block = std::vector<char>(65536);
  std::string buffered;
  std::uint64_t returnedBytes = 0;
  int readError = 0;
};

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
