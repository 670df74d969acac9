#pragma once

#include <string>

namespace forward {

// Writes a line to standard error, in the form of the server's log:
//   2026-11-21T02:32:24.123Z info 0 forward::send: stream ... is forwarded
// CODE is 0 if nothing has failed. Any thread may call these.
void logInfo(const char* function, const std::string& text);
void logWarning(const char* function, const std::string& text);
void logError(const char* function, const std::string& text);

}  // namespace forward
