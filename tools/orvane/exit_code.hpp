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

}  // namespace tool
