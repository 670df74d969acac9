#pragma once

#include <stdexcept>
#include <string>

namespace tool {

// What `orvane send` exits with; its --help lists them. 2, a wrong command line, is main's own. The
// other commands fail with 1 only.
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

// Writes what standard output still holds. Throws Failure unless all of it was written.
void requireOutput();

// Where a standard file was closed, the first file that the command opens would take its number,
// and its output, or what it reads, would be another file's. Such a number is given to one that can
// be neither read (0) nor written (1, 2).
void occupyStandardFiles();

}  // namespace tool
