#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

namespace tool {

// A line on standard error that shows how many bytes are sent or read. It is shown only on a
// terminal and unless the user wants none, drawn at most ten times a second, and removed with this
// object.
class Progress {
 public:
  // `expected` is the total number of bytes, if it is known.
  Progress(std::optional<std::uint64_t> expected, bool quiet);
  ~Progress() { clear(); }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void advance(std::uint64_t bytes);

  // Removes the line until it is drawn again, so that something else can be printed.
  void clear();

 private:
  using Clock = std::chrono::steady_clock;

  void draw(Clock::time_point now);

  const bool shown;
  const std::optional<std::uint64_t> total;
  const Clock::time_point start;
  Clock::time_point nextDrawing;
  std::uint64_t done = 0;
  std::size_t width = 0;  // of the line on the screen
};

}  // namespace tool
