#include "log.hpp"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <utility>

#include "shm/utc.hpp"

namespace orvaned {
namespace {

// In ox::Kind's order: the levels by their severity, then the kinds without a level.
constexpr std::array<const char*, 7> kKindNames = {"info",  "auth",  "warning", "error",
                                                   "trace", "enter", "leave"};

std::atomic<ox::Kind> lowestLevel{ox::Kind::info};

std::atomic<LogTarget> logTarget{nullptr};
thread_local std::string currentSubject;

constexpr std::string_view kCut = "... (cut)";

void writeToStandardError(const LogLine& line) {
  std::timespec now = {};
  std::timespec_get(&now, TIME_UTC);
  const std::string written = logLine(line.kind, line.code, line.text.c_str(), now);
  while (write(STDERR_FILENO, written.data(), written.size()) < 0 && errno == EINTR) {
  }
}

void logOrDrop(ox::Kind kind, int code, const char* text) {
  if (kind < lowestLevel.load(std::memory_order_relaxed)) {
    return;
  }
  const LogTarget target = logTarget.load(std::memory_order_acquire);
  (target != nullptr ? target : writeToStandardError)({kind, code, currentSubject, oneLine(text)});
}

}  // namespace

void startLog(ox::Kind lowest, bool tracing) {
  lowestLevel.store(lowest, std::memory_order_relaxed);
  ox::setSink(logOrDrop);
  ox::setTracing(tracing);
}

void setLogTarget(LogTarget target) {
  logTarget.store(target, std::memory_order_release);
}

LogSubject::LogSubject(const std::string& subject)
    : previous(std::exchange(currentSubject, subject.substr(0, kLongestSubject))) {}

LogSubject::LogSubject(uid_t user) : LogSubject(subjectOf(user)) {}

LogSubject::~LogSubject() {
  currentSubject = std::move(previous);
}

std::string subjectOf(uid_t user) {
  return "user " + std::to_string(user);
}

void logText(ox::Kind kind, int code, const char* text) {
  if (kind <= ox::Kind::error || TraceOn()) {
    logOrDrop(kind, code, text);
  }
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

std::string oneLine(std::string_view text) {
  const bool whole = text.size() <= kLongestLogText;
  std::string line(text.substr(0, whole ? text.size() : kLongestLogText - kCut.size()));
  std::replace_if(
      line.begin(), line.end(),
      [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; }, '?');
  return whole ? line : line.append(kCut);
}

std::string logLine(ox::Kind kind, int code, const char* text, const std::timespec& time) {
  return tool::utcText(time) + " " + kKindNames[static_cast<std::size_t>(kind)] + " " +
         std::to_string(code) + " " + text + "\n";
}

}  // namespace orvaned
