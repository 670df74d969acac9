#include "log.hpp"

#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>

namespace orvaned {
namespace {

// In ox::Kind's order: the levels by their severity, and behind them what has no level.
constexpr std::array<const char*, 7> kKindNames = {"info",  "auth",  "warning", "error",
                                                   "trace", "enter", "leave"};

std::atomic<ox::Kind> lowestLevel{ox::Kind::info};

}  // namespace

void writeLine(ox::Kind kind, int code, const char* text) {
  if (kind < lowestLevel.load(std::memory_order_relaxed)) {
    return;
  }
  std::timespec now = {};
  std::timespec_get(&now, TIME_UTC);
  const std::string line = logLine(kind, code, text, now);
  while (write(STDERR_FILENO, line.data(), line.size()) < 0 && errno == EINTR) {
  }
}

void startLog(ox::Kind lowest, bool tracing) {
  lowestLevel.store(lowest, std::memory_order_relaxed);
  ox::setSink(writeLine);
  ox::setTracing(tracing);
}

std::optional<ox::Kind> levelNamed(std::string_view name) {
  for (const ox::Kind kind : {ox::Kind::info, ox::Kind::auth, ox::Kind::warning, ox::Kind::error}) {
    if (name == kKindNames[static_cast<std::size_t>(kind)]) {
      return kind;
    }
  }
  return std::nullopt;
}

std::string doublePercent(std::string_view text) {
  std::string doubled;
  doubled.reserve(text.size());
  for (const char c : text) {
    doubled.append(c == '%' ? 2 : 1, c);
  }
  return doubled;
}

std::string logLine(ox::Kind kind, int code, const char* text, const std::timespec& time) {
  std::tm utc = {};
  gmtime_r(&time.tv_sec, &utc);
  char date[sizeof("2026-11-21T02:32:24")] = {};
  std::strftime(date, sizeof(date), "%Y-%m-%dT%H:%M:%S", &utc);
  char milliseconds[sizeof(".123Z")] = {};
  std::snprintf(milliseconds, sizeof(milliseconds), ".%03uZ",
                static_cast<unsigned>(time.tv_nsec / 1000000) % 1000);
  return std::string(date) + milliseconds + " " + kKindNames[static_cast<std::size_t>(kind)] + " " +
         std::to_string(code) + " " + text + "\n";
}

}  // namespace orvaned
