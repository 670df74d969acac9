#pragma once

#include <sys/types.h>

#include <chrono>

namespace orvaned {

// The process that writes the log. A write to standard error may block: the other end of a pipe may
// not be read, or a disk may hang. The server must not change the file's flags, because other
// programs may have the same file open. So one process only does these writes, and all others send
// it their lines through a socket, without waiting. Lines for which the socket has no room, and
// lines that could not be written, are counted; the count becomes a line when there is room again.
//
// That process also limits the lines about one user or queue (log_limiter.hpp). It is a child of
// the process that creates this object and ignores every signal but SIGKILL. It ends after all
// processes that log, so that it writes their last lines.
class LogWriter {
 public:
  // Starts the process; from then on all lines of this process, and of those that it forks, go
  // there. There is one LogWriter at a time. Throws std::system_error.
  LogWriter();

  // Lines go to standard error again.
  ~LogWriter();
  LogWriter(const LogWriter&) = delete;
  LogWriter& operator=(const LogWriter&) = delete;

  // Starts another process if this one was killed, and reports dropped lines. To be called from
  // time to time. Does not block.
  void restartIfEnded() noexcept;

  // Ends the log: waits up to 2 seconds until the remaining lines are written, then kills the
  // process. Later lines are dropped.
  void finish() noexcept;

  pid_t process() const { return pid; }

 private:
  using Clock = std::chrono::steady_clock;

  void start() noexcept;
  void noticeEnd() noexcept;
  bool hasEndedWithin(std::chrono::milliseconds time) const noexcept;

  pid_t pid = -1;  // none
  Clock::time_point lastStart;
};

// In a forked process that continues to log: closes the reading end of the socket. The parent keeps
// that end so that no line is lost while the log's process is replaced.
void closeLogReader();

// The sending end of the socket, for a forked process that continues to log and closes the files
// that it does not need; -1: none.
int logFile();

// In a forked process that is not trusted: closes both ends, and unmaps the memory where dropped
// lines are counted. Its lines go to standard error, or to the next target of setLogTarget().
void leaveLog();

}  // namespace orvaned
