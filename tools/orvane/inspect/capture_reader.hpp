#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "interrupt.hpp"
#include "store_format/capture_header.hpp"
#include "transport/input.hpp"

namespace tool {

// Takes a capture apart, or the one batch that a file holds; reads no further than it has to.
// A message of which only a part was written costs no other one: where what is said to be a message
// is no batch, does not end before another one or at the end of the file, and holds what may begin
// a message, it is taken for such a part. Throws what Input does.
class CaptureReader {
 public:
  struct Piece {
    std::span<const unsigned char> bytes;  // until the next call
    std::uint64_t offset;                  // in the file
    bool isMessage = true;   // or else bytes between two messages, as a full disk leaves them
    std::string queue = {};  // empty: the file is a batch
  };

  CaptureReader(Input& input, Interrupt& interrupt);

  // Nothing at the end.
  std::optional<Piece> next();

 private:
  bool fill(std::size_t size);
  std::span<const unsigned char> waiting() const { return std::span(window).subspan(begin); }
  std::optional<CaptureHeader> headerAt(std::size_t position);
  bool isWhole(const CaptureHeader& header);
  Piece message(std::size_t queueSize, std::size_t messageSize);
  Piece stray();
  Piece take(std::size_t size);

  Input& input;
  Interrupt& interrupt;
  std::vector<unsigned char> window;
  std::size_t begin = 0;     // of what was not taken yet, in the window
  std::uint64_t offset = 0;  // the same, in the file
  bool ended = false;
  bool isCapture;
};

}  // namespace tool
