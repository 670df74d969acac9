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

// Keeps one subject (a user, a queue) from filling the log. A cause is a subject, kind, code and
// COMPONENT::FUNCTION. Within a second, the first lines of a cause pass; the others are counted,
// and the count becomes one line when the second is over. The lines and bytes of a subject are
// limited as well, in case it invents causes. The memory for this is bounded, too.
//
// The server's own lines (those without a subject) are not limited. Trace lines are not limited
// either, because the administrator asked for each of them.
class LogLimiter {
 public:
  using Clock = std::chrono::steady_clock;

  static constexpr std::chrono::seconds kWindow{1};
  static constexpr unsigned kLinesOfCause = 20;
  static constexpr unsigned kLinesOfSubject = 100;
  static constexpr std::size_t kBytesOfSubject = 32768;
  static constexpr std::size_t kCauses = 32;     // of a subject; all others count as one
  static constexpr std::size_t kSubjects = 256;  // all others count as one

  // Is this line to be written now? Otherwise it is counted. Call due() first.
  bool admit(const LogLine& line, Clock::time_point now);

  // A line for each cause with counted lines, if the second is over. It began with the first line
  // since the last call.
  std::vector<LogLine> due(Clock::time_point now);

  // When due() has to be called next; nothing if no line has come since its last call.
  std::optional<Clock::time_point> nextDue() const { return end; }

  // The lines of due() before the second is over, for the end of the log.
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
