#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>

#include "log.hpp"
#include "shm/fd.hpp"

namespace orvaned {

// The number of lines that all processes of the server have dropped and not reported yet, in memory
// that they share.
using DroppedLines = std::atomic<std::uint64_t>;
static_assert(DroppedLines::is_always_lock_free);

// The socket over which lines go to the process that writes them.
struct LogSocket {
  tool::Fd reader;
  tool::Fd sender;
  DroppedLines* dropped = nullptr;
};

// A packet is this header, then the subject, then the text.
struct LogHeader {
  std::timespec sent;
  std::uint64_t dropped;  // lines before this one
  ox::Kind kind;
  int code;
  std::uint32_t subjectSize;
  bool hasLine;  // otherwise it only reports dropped lines
};

// The header of `line`, sent now. Null: of a packet without a line.
LogHeader headerOf(const LogLine* line);

// The task of the log's process: writes to standard error until no process can send any more.
[[noreturn]] void runLogProcess(LogSocket& socket, pid_t parent);

}  // namespace orvaned
