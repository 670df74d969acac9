#pragma once

#include <string>

#include "orvane/export.hpp"

namespace orvane::server {

// Any int may be passed as a level; those without a name here are formatted and then dropped.
enum OrvanServerLoglevel : int {
  LEVEL_INFO = 1,     // InfoA
  LEVEL_AUTH = 2,     // AuthA
  LEVEL_WARNING = 3,  // WarningA
  LEVEL_ERROR = 4,    // ErrorA
};

// Writes a component's lines to the platform's log: "name::function: message".
//   Logger log("store");
//   log.log(LEVEL_ERROR, __func__, errno, "no room for segment %u", number);
//
// The finished line is itself handed on as a printf format, so a percent sign that comes from
// outside (a file name in an argument, say) must arrive doubled. The message is cut to 4095
// characters. A value; any number of threads may log through one. Throws std::logic_error when
// `function` is null, and std::bad_alloc.
class ORVANE_API Logger {
 public:
  // With an empty name the line is "function: message".
  Logger(const std::string& name);  // NOLINT(google-explicit-constructor): callers convert
  Logger(const Logger&) = default;
  Logger(Logger&&) = default;
  Logger& operator=(const Logger&) = default;
  Logger& operator=(Logger&&) = default;
  ~Logger();

  // `code` reaches the log unchanged.
  void log(OrvanServerLoglevel level, const char* function, int code, const char* format, ...) const
      __attribute__((format(printf, 5, 6)));

  // Formats and writes only while TraceOn() answers true.
  void logTrace(const char* function, const char* format, ...) const
      __attribute__((format(printf, 3, 4)));

  // The function's name as lines carry it: unchanged.
  std::string trimFunctionName(const std::string& function) const;

  friend ORVANE_API bool operator==(const Logger& a, const Logger& b);

 private:
  ORVANE_LOCAL std::string line(const char* function, const char* message) const;

  std::string name;
};

ORVANE_API bool operator==(const Logger& a, const Logger& b);
ORVANE_API bool operator!=(const Logger& a, const Logger& b);

}  // namespace orvane::server
