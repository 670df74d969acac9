#pragma once

#include <sys/types.h>

#include <ctime>
#include <optional>
#include <orvane/orvane.hpp>
#include <string>
#include <string_view>

namespace orvaned {

// The server's log. Each component has its own Logger, and each line becomes one write to standard
// error:
//   2026-11-21T02:32:24.123Z info 0 worker::open: queue orders: stream 2026..._0 begins
//   2026-11-21T02:32:31.004Z error 1001 worker::take: queue orders: sequence number out of order
//   ... 2026-11-21T02:32:31.005Z trace 0 worker::runOnce: queue orders: answered 1001 "sequence
//   ..."
// The time is UTC. The ox::Kind and the code follow; trace, enter and leave have the code 0.

// A process that others wait for does not write to standard error itself: see log_writer.hpp.

constexpr std::size_t kLongestSubject = 512;
constexpr std::size_t kLongestLogText = 4608;

// A line on its way to standard error.
struct LogLine {
  ox::Kind kind = ox::Kind::info;
  int code = 0;
  std::string subject;  // the user or queue of the line, "user 1000"; empty for the server
  std::string text;     // COMPONENT::FUNCTION: MESSAGE, without control characters
};

// From now on, lines of a level below `lowest` are dropped. `tracing` switches the platform's
// tracing; trace lines have no level, so `lowest` does not concern them.
void startLog(ox::Kind lowest, bool tracing);

// From now on, every line of this process goes to `target`; null restores the default, a write to
// standard error. A target must be safe from any thread, and it must not log.
using LogTarget = void (*)(const LogLine& line);
void setLogTarget(LogTarget target);

// While it lives, the lines of its thread have this subject, and are limited together with all
// others of that subject (see log_limiter.hpp). A forked process inherits the subject. A subject
// longer than kLongestSubject is cut.
class LogSubject {
 public:
  explicit LogSubject(const std::string& subject);
  explicit LogSubject(uid_t user);
  ~LogSubject();
  LogSubject(const LogSubject&) = delete;
  LogSubject& operator=(const LogSubject&) = delete;

 private:
  std::string previous;
};

// The subject of the lines about a user: "user 1000".
std::string subjectOf(uid_t user);

// Logs a finished line that another process sent; trace lines only while tracing is on.
void logText(ox::Kind kind, int code, const char* text);

// The level of that name: info, auth, warning or error, in the order of their severity.
std::optional<ox::Kind> levelNamed(std::string_view name);

// For texts from outside in a Logger's line: the platform uses the finished line as a printf
// format.
std::string doublePercent(std::string_view text);

// A text from outside as one line: control characters are replaced by "?", and a text longer than
// kLongestLogText ends with "... (cut)". The library's Logger writes no longer ones.
std::string oneLine(std::string_view text);

// One line, with its end.
std::string logLine(ox::Kind kind, int code, const char* text, const std::timespec& time);

}  // namespace orvaned
