#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "log.hpp"

namespace orvaned {

// Keeps one subject (a user, a queue) from filling the log. Within a second, the first lines of one
// cause pass, which is a subject, kind, code and COMPONENT::FUNCTION; the others are counted, and
// the count becomes one line when the second is over. Whoever invents causes is held by the limits
// of the subject: its lines and bytes in all. The memory that this takes is bounded, too.
//
// The server's own lines (those without a subject) are not limited, nor are trace lines, of which
// the administrator asked for each one.
class LogLimiter {
 public:
  using Clock = std::chrono::steady_clock;

  static constexpr std::chrono::seconds kWindow{1};
  static constexpr unsigned kLinesOfCause = 20;
  static constexpr unsigned kLinesOfSubject = 100;
  static constexpr std::size_t kBytesOfSubject = 32768;
  static constexpr std::size_t kCauses = 32;     // of a subject; all others count as one
  static constexpr std::size_t kSubjects = 256;  // all others count as one

  // Is this line to be written now? Otherwise it is counted. due() comes before.
  bool admit(const LogLine& line, Clock::time_point now);

  // What is to be written about the second that began with the first line since the last call, if
  // it is over: a line for each cause that had more of them than passed.
  std::vector<LogLine> due(Clock::time_point now);

  // When due() has to be called; nothing when no line has come since it last was.
  std::optional<Clock::time_point> nextDue() const { return end; }

  // What due() will return when the second is over. For the end of the log.
  std::vector<LogLine> finish();

 private:
  using CauseKey = std::tuple<ox::Kind, int, std::string>;

  struct Cause {
    unsigned passed = 0;
    std::uint64_t counted = 0;
    std::string first;  // of the lines that were counted
  };

  struct Subject {
    unsigned lines = 0;
    std::size_t bytes = 0;
    std::map<CauseKey, Cause> causes;
    Cause otherCauses;
  };

  Subject& subjectNamed(const std::string& name);

  std::optional<Clock::time_point> end;
  std::map<std::string, Subject> subjects;
  Subject otherSubjects;
};

}  // namespace orvaned
