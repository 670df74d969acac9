#include "exit.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <system_error>

namespace tool {

void requireOutput() {
  const bool failedBefore = std::ferror(stdout) != 0;
  if (std::fflush(stdout) == 0 && !failedBefore) {
    return;
  }
  // Only the next write shows why an earlier one failed.
  const bool stillFails = write(STDOUT_FILENO, "\n", 1) < 0;
  throw Failure(kFailed,
                "cannot write all of it: " + (stillFails ? std::generic_category().message(errno)
                                                         : std::string("a part of it is lost")));
}

void occupyStandardFiles() {
  for (const int number : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(number, F_GETFD) < 0) {
      open("/dev/null", number == STDIN_FILENO ? O_WRONLY : O_RDONLY);
    }
  }
}

}  // namespace tool
