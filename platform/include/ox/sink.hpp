#pragma once

#include "ox/export.hpp"

namespace ox {

enum class Kind { info, auth, warning, error, trace, enter, leave };

// Receives one line at a time: its kind, the caller's code (0 for trace, enter and leave) and its
// text without a line end. The thread that logs calls it, so it must be safe to call from any
// thread. It must not log itself. An exception that it throws is ignored.
using Sink = void (*)(Kind kind, int code, const char* text);

// Sends every later line to `sink`. Null restores the default, which writes each line to standard
// error with one write.
OX_API void setSink(Sink sink);

// Sets the result of TraceOn(), and whether AutoTrace writes lines. Tracing is off at first.
OX_API void setTracing(bool on);

}  // namespace ox
