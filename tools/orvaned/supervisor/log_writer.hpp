#pragma once

#include <sys/types.h>

#include <chrono>

namespace orvaned {

// The process that writes the log. A write to standard error may block: a pipe that nobody reads,
// or a file on a disk that hangs. Its flags are not the server's to change, because other programs
// may have the same file. So one process does nothing but these writes, and all others send it
// their lines through a socket, without waiting. Lines for which the socket has no room, and lines
// that could not be written, are counted; the count becomes a line when there is room again.
//
// That process also limits how much the log says about one user or queue (log_limiter.hpp). It is
// a child of the process that makes this object, ignores every signal but SIGKILL, and ends when
// all that log have ended, so that it writes their last lines.
class LogWriter {
 public:
  // Starts it; from then on all lines of this process, and of those that it forks, go there. There
  // is one LogWriter at a time. Throws std::system_error.
  LogWriter();

  // Lines go to standard error again.
  ~LogWriter();
  LogWriter(const LogWriter&) = delete;
  LogWriter& operator=(const LogWriter&) = delete;

  // Starts another process where this one was killed, and reports lines that were dropped. To be
  // called every now and then. Does not block.
  void restartIfEnded() noexcept;

  // Ends the log: waits up to 2 seconds for what is to be written still, then kills the process.
  // Later lines are dropped.
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

// In a forked process that goes on logging: closes the end of the socket that is read, which the
// parent keeps so that no line is lost while the log's process is replaced.
void closeLogReader();

// The end of the socket that lines are sent to, for a forked process that goes on logging and
// closes what it does not need; -1: none.
int logFile();

// In a forked process that is not trusted: closes both ends and takes away the memory where dropped
// lines are counted. Its lines go to standard error, or where setLogTarget() says then.
void leaveLog();

}  // namespace orvaned
