#pragma once

#include <ctime>
#include <optional>
#include <orvane/orvane.hpp>
#include <string>
#include <string_view>

namespace orvaned {

// The server's log. Each component writes through a Logger of its own, and each line becomes one
// write to standard error:
//   2026-11-21T02:32:24.123Z info 0 worker::open: queue orders: stream 20261121T023224-4711_0
//   begins 2026-11-21T02:32:31.004Z error 1001 worker::take: queue orders: sequence number out of
//   order: ... 2026-11-21T02:32:31.005Z trace 0 worker::runOnce: queue orders: answered 1001
//   "sequence ..."
// The time is UTC. The next two words are ox::Kind's and the code that came with the text; trace,
// enter and leave carry 0.

// From now on, lines of a level below `lowest` are dropped. `tracing` switches the platform's
// tracing; trace lines have no level, so `lowest` does not concern them.
void startLog(ox::Kind lowest, bool tracing);

// Writes one line; what startLog() makes the platform's sink.
void writeLine(ox::Kind kind, int code, const char* text);

// The level of that name: info, auth, warning or error, in the order of their severity.
std::optional<ox::Kind> levelNamed(std::string_view name);

// For texts that come from outside and go into a Logger's line: the platform takes the finished
// line for a printf format.
std::string doublePercent(std::string_view text);

// One line, with its end.
std::string logLine(ox::Kind kind, int code, const char* text, const std::timespec& time);

}  // namespace orvaned
