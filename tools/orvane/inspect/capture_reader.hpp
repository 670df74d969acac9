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

// Splits a capture into its messages, or reads a file that holds one batch. It reads no further
// than it has to. If only a part of a message was written, the other messages are still found. A
// message is taken for such a part if it is not a batch, neither another message nor the end of the
// file follows it, and another message may begin inside it. Throws what Input throws.
class CaptureReader {
 public:
  struct Piece {
    std::span<const unsigned char> bytes;  // valid until the next call
    std::uint64_t offset;                  // in the file
    bool isMessage = true;   // false for bytes between two messages, as a full disk leaves them
    std::string queue = {};  // empty if the file is a batch
  };

  CaptureReader(Input& input, Interrupt& interrupt);

  // Returns nothing at the end of the file.
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
  std::size_t begin = 0;     // position in the window of the first byte that was not taken yet
  std::uint64_t offset = 0;  // position of that byte in the file
  bool ended = false;
  bool isCapture;
};

}  // namespace tool
