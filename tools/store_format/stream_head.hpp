#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "shm/utc.hpp"

namespace tool {

// The formats of the manifest (manifest_lines.hpp). Servers write the second one, and finish what
// an earlier release left in the first.
constexpr int kFirstFormat = 1;
constexpr int kManifestFormat = 2;

// The process that took a stream's lease, as the kernel identifies it.
struct Producer {
  std::uint32_t user = 0;
  std::uint32_t group = 0;
  std::int32_t process = 0;  // 0: it is not visible to the server
  std::string executable;    // its file's name; empty: the server may not read it

  bool operator==(const Producer&) const = default;
};

// What is known of a stream when it begins: the first lines of its manifest.
struct StreamHead {
  int format = kManifestFormat;
  std::string queue = {};                 // the send queue's name, or the lease's if it has a ring
  std::string stream = {};                // as in its receipt
  std::optional<Producer> producer = {};  // none: the queue is a fixed one
  std::string label = {};                 // empty: none
  std::optional<UtcTime> begun = {};  // none: in format 1, or the line was lost when a server died

  bool operator==(const StreamHead&) const = default;
};

std::vector<std::string> linesOf(const StreamHead& head);

// Reads the lines of a head one after another.
class StreamHeadParser {
 public:
  // Returns false if the line is none of a head's, or is not the next one; the head has ended then.
  bool take(const std::string& line);

  // Have the lines come without which there is no head: the format, the queue and the stream?
  bool isValid() const { return lines >= kNeeded; }

  // Has the last line come?
  bool isComplete() const;

  const StreamHead& head() const { return read; }

 private:
  static constexpr std::size_t kNeeded = 3;

  bool takeNeeded(const std::string& line);
  bool takeFact(const std::string& line);

  StreamHead read;
  std::size_t lines = 0;
};

}  // namespace tool
