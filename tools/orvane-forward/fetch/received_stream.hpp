#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "subjects.hpp"

namespace forward {

// A stream's folder, written chunk by chunk, in any order. A file has its name when it is complete,
// and the manifest gets its name last.
class ReceivedStream {
 public:
  // Makes the folder if it is missing. Throws std::runtime_error if it holds anything but files of
  // an earlier attempt, which are replaced.
  explicit ReceivedStream(std::string path);

  // One message of the stream. `checksum` and `offset` are the texts of its headers.
  struct Part {
    std::string file;
    std::uint64_t offset = 0;
    bool isLast = false;
    std::span<const unsigned char> data;
  };

  // Returns what a message holds, or nothing if it is not what was sent; `fault` is the reason.
  static std::optional<Part> partOf(const ChunkName& name, const std::string& offset,
                                    const std::string& checksum, bool isLast,
                                    std::span<const unsigned char> data, std::string& fault);

  // Writes a part. Returns true if it completes a file that is not the manifest. Throws
  // std::runtime_error.
  bool take(const Part& part);

  // Gives the manifest its name. Returns the files of which parts are missing.
  std::vector<std::string> conclude();

  std::uint64_t bytes() const { return writtenBytes; }
  std::uint64_t files() const { return completeFiles; }

 private:
  struct File {
    std::map<std::uint64_t, std::uint64_t> ranges;  // begin and end of what is written
    std::optional<std::uint64_t> size;              // once the last part has come
  };

  static void add(File& file, std::uint64_t begin, std::uint64_t end);
  static bool isComplete(const File& file);
  std::string newPathOf(const std::string& file) const;
  void write(const Part& part) const;
  void publish(const std::string& file) const;

  const std::string folder;
  std::map<std::string, File> open;  // those that are not complete, and the manifest
  std::uint64_t writtenBytes = 0;
  std::uint64_t completeFiles = 0;
};

}  // namespace forward
