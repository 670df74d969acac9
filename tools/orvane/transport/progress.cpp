#include "transport/progress.hpp"

#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <string>

#include "units.hpp"

namespace tool {
namespace {

constexpr std::chrono::milliseconds kRedraw(100);

std::string clockText(double seconds) {
  const auto whole = static_cast<unsigned long long>(std::ceil(seconds));
  char text[48];
  if (whole >= 3600) {
    std::snprintf(text, sizeof text, "%llu:%02llu:%02llu", whole / 3600, whole / 60 % 60,
                  whole % 60);
  } else {
    std::snprintf(text, sizeof text, "%llu:%02llu", whole / 60, whole % 60);
  }
  return text;
}

}  // namespace

Progress::Progress(std::optional<std::uint64_t> expected, bool quiet)
    : shown(isatty(STDERR_FILENO) == 1 && !quiet),
      total(expected),
      start(Clock::now()),
      nextDrawing(start + kRedraw) {}

void Progress::clear() {
  if (width > 0) {
    // After Ctrl-C the terminal has added ^C to the line.
    constexpr std::size_t kControlC = 2;
    std::fprintf(stderr, "\r%*s\r", static_cast<int>(width + kControlC), "");
    width = 0;
  }
}

void Progress::advance(std::uint64_t bytes) {
  done += bytes;
  if (!shown) {
    return;
  }
  const auto now = Clock::now();
  if (now >= nextDrawing) {
    nextDrawing = now + kRedraw;
    draw(now);
  }
}

void Progress::draw(Clock::time_point now) {
  const double rate =
      static_cast<double>(done) / std::chrono::duration<double>(now - start).count();
  std::string line = bytesText(static_cast<double>(done));
  // If a file grows meanwhile, more than the total is sent, and the rest is unknown.
  if (total.has_value() && *total >= done && done > 0) {
    line += " of " + bytesText(static_cast<double>(*total));
    line += ", " + bytesText(rate) + "/s, ";
    line += clockText(static_cast<double>(*total - done) / rate) + " left";
  } else {
    line += ", " + bytesText(rate) + "/s";
  }
  const std::size_t shorter = width > line.size() ? width - line.size() : 0;
  std::fprintf(stderr, "\r%s%*s", line.c_str(), static_cast<int>(shorter), "");
  width = line.size();
}

}  // namespace tool
