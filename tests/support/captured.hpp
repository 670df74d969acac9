#pragma once

#include <string>

#include "support/wire.hpp"

namespace orvane::test {

// docs/format.md explains it byte by byte.
inline const Bytes kExample =
    hex("ff 00 ee 11 00 00 00 02"
        "00 00 00 01 00 00 00 05 00 00 00 00 00 00 00 02"
        "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00"
        "00 00 00 00 00 00 00 00 00 00 00 00 aa bb cc dd"
        "68 65 6c 6c 6f"
        "00 00 00 02 00 00 00 00 00 00 00 00 00 00 00 03"
        "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00"
        "00 00 00 00 00 00 00 00 00 00 00 00 aa bb cc dd");

constexpr char kExampleText[] =
    "ShmBatch: entries=2, bufferSize=109, used=109\n"
    "[0]: type=1, len=5, crc=103547413 (2,1,5,0,0,0,0,0,0,2864434397)\n"
    "[1]: type=2, len=0 (3,2,0,0,0,0,0,0,0,2864434397)\n";

inline std::string textOf(const Bytes& bytes) {
  return {bytes.begin(), bytes.end()};
}

// A message in a capture, as a server that serves `queue` writes it.
inline std::string captured(const std::string& queue, const Bytes& message) {
  const auto size = [](std::size_t number) { return static_cast<unsigned char>(number); };
  Bytes header = hex("4f 52 56 43 00 00 00 00 00 00 00 00 00 00 00 00");
  header[7] = size(queue.size());
  header[14] = size(message.size() >> 8);
  header[15] = size(message.size());
  return textOf(header) + queue + textOf(message);
}

}  // namespace orvane::test
