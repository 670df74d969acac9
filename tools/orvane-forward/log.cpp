#include "log.hpp"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "shm/utc.hpp"

namespace forward {
namespace {

void logLine(const char* kind, int code, const char* function, const std::string& text) {
  std::string line = tool::utcText(tool::utcNow()) + " " + kind + " " + std::to_string(code) +
                     " forward::" + function + ": " + text;
  std::replace_if(
      line.begin(), line.end(), [](char c) { return (c >= 0 && c < ' ') || c == 127; }, '?');
  line += '\n';
  while (write(STDERR_FILENO, line.data(), line.size()) < 0 && errno == EINTR) {
  }
}

}  // namespace

void logInfo(const char* function, const std::string& text) {
  logLine("info", 0, function, text);
}

void logWarning(const char* function, const std::string& text) {
  logLine("warning", 1, function, text);
}

void logError(const char* function, const std::string& text) {
  logLine("error", 1, function, text);
}

}  // namespace forward
