#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>

#include "log.hpp"
#include "shm/fd.hpp"

namespace orvaned {

// Lines that were dropped and not reported yet, by all processes of the server together: in memory
// that they share.
using DroppedLines = std::atomic<std::uint64_t>;
static_assert(DroppedLines::is_always_lock_free);

// The way of the lines to the process that writes them.
struct LogSocket {
  tool::Fd reader;
  tool::Fd sender;
  DroppedLines* dropped = nullptr;
};

// A packet: this, then the subject, then the text.
struct LogHeader {
  std::timespec sent;
  std::uint64_t dropped;  // lines, before this one
  ox::Kind kind;
  int code;
  std::uint32_t subjectSize;
  bool hasLine;  // otherwise it only reports dropped lines
};

// Of this line, now; of none for null.
LogHeader headerOf(const LogLine* line);

// What the log's process does: writes to standard error until nobody sends any more.
[[noreturn]] void runLogProcess(LogSocket& socket, pid_t parent);

}  // namespace orvaned
