#pragma once

#include <orvane/orvane.hpp>
#include <span>
#include <string>

#include "shm/fd.hpp"

namespace orvaned {

// Throws std::runtime_error unless messages can be appended to `path`; an empty path is no capture.
void checkCapture(const std::string& path);

// Appends each message of a queue to the file of --capture, as it came. The workers share that
// file: a message is one write at its end (docs/format.md draws it). Never throws: what goes wrong
// ends capturing, with a warning, and nothing else.
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
