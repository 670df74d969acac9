#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

namespace tool {

// A line on standard error that shows how many bytes are sent. It is shown only on a terminal,
// drawn at most ten times a second, and removed with this object.
class Progress {
 public:
  // `expected` is the total number of bytes, if it is known.
  explicit Progress(std::optional<std::uint64_t> expected);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void advance(std::uint64_t bytes);

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
