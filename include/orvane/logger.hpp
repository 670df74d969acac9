#pragma once

#include <string>

#include "orvane/export.hpp"

namespace orvane::server {

// The level of a line, with the platform's function that writes it (ox/log.hpp). Any int may be
// passed as a level: a line with another level than these is not written.
enum OrvanServerLoglevel : int {
  LEVEL_INFO = 1,     // InfoA
  LEVEL_AUTH = 2,     // AuthA
  LEVEL_WARNING = 3,  // WarningA
  LEVEL_ERROR = 4,    // ErrorA
};

// Writes the log lines of one component of a server, as "name::function: message".
//   Logger log("store");
//   log.log(LEVEL_ERROR, __func__, errno, "no room for segment %u", number);
//
// The platform reads the finished line as a printf format again. So double each percent sign in an
// argument that comes from outside, such as a file name. The message is cut to 4095 characters. A
// Logger is a value, and any number of threads may log through the same one. Both log calls throw
// std::logic_error when `function` is null, and std::bad_alloc.
class ORVANE_API Logger {
 public:
  // `name` is the component's. If it is empty, lines are "function: message".
  Logger(const std::string& name);  // NOLINT(google-explicit-constructor): callers convert
  Logger(const Logger&) = default;
  Logger(Logger&&) = default;
  Logger& operator=(const Logger&) = default;
  Logger& operator=(Logger&&) = default;
  ~Logger();

  // Writes one line. `function` is usually __func__; `code` is a status or errno, which is
  // passed on unchanged; `format` and the arguments are printf's.
  void log(OrvanServerLoglevel level, const char* function, int code, const char* format, ...) const
      __attribute__((format(printf, 5, 6)));

  // Writes a trace line while TraceOn() returns true (ox/trace.hpp), and otherwise does nothing.
  void logTrace(const char* function, const char* format, ...) const
      __attribute__((format(printf, 3, 4)));

  // Returns the function's name as the lines show it, which is `function` itself.
  std::string trimFunctionName(const std::string& function) const;

  friend ORVANE_API bool operator==(const Logger& a, const Logger& b);

 private:
  ORVANE_LOCAL std::string line(const char* function, const char* message) const;

  std::string name;
};

ORVANE_API bool operator==(const Logger& a, const Logger& b);
ORVANE_API bool operator!=(const Logger& a, const Logger& b);

}  // namespace orvane::server
