#include "orvane/logger.hpp"

#include <cstdarg>
#include <cstdio>
#include <sstream>

#include "ox/log.hpp"
#include "ox/trace.hpp"

namespace orvane::server {

namespace {

// The caller's format and arguments as text, cut to 4095 characters.
struct Message {
  [[gnu::format(printf, 2, 0)]] Message(const char* format, va_list arguments) {
    std::vsnprintf(text, sizeof text, format, arguments);
  }

  char text[4096] = {};
};

}  // namespace

Logger::Logger(const std::string& name) : name(name) {}
Logger::~Logger() = default;

bool operator==(const Logger& a, const Logger& b) {
  return a.name == b.name;
}
bool operator!=(const Logger& a, const Logger& b) {
  return !(a == b);
}

std::string Logger::line(const char* function, const char* message) const {
  std::ostringstream text;
  text.exceptions(std::ios_base::badbit);  // so that running out of memory throws
  if (!name.empty()) {
    text << name << "::";
  }
  text << trimFunctionName(std::string(function)) << ": " << message;
  return text.str();
}

// The line is passed as a format without arguments: deployed servers rely on percent signs being
// read a second time (callers double those that come from outside).
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"

void Logger::log(OrvanServerLoglevel level, const char* function, int code, const char* format,
                 ...) const {
  va_list arguments;
  va_start(arguments, format);
  const Message message(format, arguments);
  va_end(arguments);
  const std::string text = line(function, message.text);
  if (level == LEVEL_INFO) {
    InfoA(code, text.c_str());
  } else if (level == LEVEL_AUTH) {
    AuthA(code, text.c_str());
  } else if (level == LEVEL_WARNING) {
    WarningA(code, text.c_str());
  } else if (level == LEVEL_ERROR) {
    ErrorA(code, text.c_str());
  }
}

void Logger::logTrace(const char* function, const char* format, ...) const {
  if (!TraceOn()) {
    return;
  }
  va_list arguments;
  va_start(arguments, format);
  const Message message(format, arguments);
  va_end(arguments);
  const std::string text = line(function, message.text);
  // Checked again, because tracing may have been switched off while the line was formatted.
  if (TraceOn()) {
    __Trace(text.c_str());
  }
}

#pragma GCC diagnostic pop

std::string Logger::trimFunctionName(const std::string& function) const {
  return function;
}

}  // namespace orvane::server
