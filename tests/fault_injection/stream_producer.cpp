// stream_producer SOCKET TRANSPORT FILE PIECE SEGMENT TIMEOUT: sends a file in pieces and segments,
// and prints what the stream says is certain: "stored ID", "not stored: WHY" or "unknown: WHY".
// TRANSPORT is "ring" or "queue".
#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <orvane/orvane.hpp>
#include <string>

namespace {

constexpr int kPatience = 20;  // timeouts

// Repeats a call that may be repeated.
template <typename Call>
void repeat(const Call& call) {
  for (int left = kPatience;; --left) {
    try {
      return call();
    } catch (const orvane::StreamError& e) {
      if (e.status() != orvane::kStatusTimedOut || left == 0) {
        throw;
      }
    }
  }
}

void write(orvane::Stream& stream, const char* data, std::size_t size) {
  repeat([&] {
    try {
      stream.write(data, size);
    } catch (const orvane::StreamError& e) {
      data += e.taken();
      size -= e.taken();
      throw;
    }
  });
}

}  // namespace

int main(int, char** argv) try {
  std::ifstream file(argv[3], std::ios::binary);
  const std::string data{std::istreambuf_iterator<char>(file), {}};
  const std::size_t piece = std::stoul(argv[4]);
  const std::size_t segment = std::stoul(argv[5]);
  const bool isRing = argv[2] == std::string("ring");
  orvane::Stream stream({.socket = argv[1],
                         .label = "faults",
                         .timeout = static_cast<unsigned int>(std::stoul(argv[6])),
                         .transport = isRing ? orvane::Transport::ring : orvane::Transport::queue});
  for (std::size_t at = 0, inSegment = 0; at < data.size();) {
    const std::size_t size = std::min({piece, data.size() - at, segment - inSegment});
    write(stream, data.data() + at, size);
    at += size;
    inSegment += size;
    if (inSegment == segment) {
      repeat([&] { stream.endSegment(); });
      inSegment = 0;
    }
  }
  repeat([&] { stream.finish(); });
  std::cout << "stored " << stream.finish().stream << "\n";
} catch (const orvane::StreamError& e) {
  const char* const certain[] = {"stored: ", "not stored: ", "unknown: "};
  std::cout << certain[static_cast<int>(e.certainty())] << e.what() << "\n";
  return 3;
}
