#pragma once

#include <stdexcept>
#include <string>

namespace tool {

// The exit codes of `orvane send`, which its --help explains. main() itself returns 2 for a wrong
// command line. The other commands fail only with 1.
enum ExitCode {
  kStored = 0,
  kNothingSent = 1,
  kFailed = 1,
  kUsage = 2,
  kRefused = 3,
  kUnknown = 4,
  kInputFailed = 5,
  kNotReported = 6,
};

// Ends the command with a message for its user.
class Failure : public std::runtime_error {
 public:
  Failure(ExitCode exitCode, const std::string& message)
      : std::runtime_error(message), code(exitCode) {}

  const ExitCode code;
};

// Flushes standard output. Throws Failure if a part of it could not be written.
void requireOutput();

// If standard input, output or error is closed, the first file that the command opens would get its
// number, and the command would read or write that file by mistake. So each such number gets a file
// that cannot be read (0) or cannot be written (1, 2).
void occupyStandardFiles();

}  // namespace tool
