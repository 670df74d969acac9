#pragma once

#include "ox/export.hpp"

namespace ox {

enum class Kind { info, auth, warning, error, trace, enter, leave };

// Receives one line at a time: its kind, the caller's code (0 for trace, enter and leave) and its
// text without a line end. Called on the thread that logs, so it must be safe from any thread, and
// it must not log itself. What it throws is dropped.
using Sink = void (*)(Kind kind, int code, const char* text);

// Sends every later line to `sink`; null restores the default, one write to standard error a line.
OX_API void setSink(Sink sink);

// What TraceOn() answers from now on; off at the start.
OX_API void setTracing(bool on);

}  // namespace ox
