#pragma once

#include <orvane/orvane.hpp>
#include <span>
#include <string>

#include "shm/fd.hpp"

namespace orvaned {

// Throws std::runtime_error if messages cannot be appended to `path`. An empty path means no
// capture.
void checkCapture(const std::string& path);

// Appends each message of a queue unchanged to the file of --capture. The workers share that file:
// a message is one write at its end (docs/format.md draws it). Never throws: an error ends only the
// capture, with a warning.
class Capture {
 public:
  Capture() = default;  // captures nothing, as with an empty path
  Capture(std::string path, std::string queue);

  void add(std::span<const unsigned char> message) {
    if (file.get() >= 0) {
      append(message);
    }
  }

 private:
  void append(std::span<const unsigned char> message);
  void warn(const std::string& reason) const;

  std::string path;
  std::string queue;
  tool::Fd file;
};

}  // namespace orvaned
