// orvane-forward, which forwards finished streams to a cluster.

#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <unistd.h>

#include <exception>

#include "connection.hpp"
#include "forwarder.hpp"
#include "log.hpp"
#include "options.hpp"

namespace {

// The signals that end the program are for the main thread, which reads them.
void prepareSignals() {
  sigset_t ending = {};
  sigemptyset(&ending);
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    sigaddset(&ending, number);
  }
  sigprocmask(SIG_BLOCK, &ending, nullptr);
  signal(SIGPIPE, SIG_IGN);
  signal(SIGXFSZ, SIG_IGN);
}

// If standard error was closed, the first file would get its number, and so the lines of the log.
void occupyStandardFiles() {
  int fd = 0;
  while (fd >= 0 && fd <= STDERR_FILENO) {
    fd = open("/dev/null", O_RDWR | O_CLOEXEC);
  }
  close(fd);
}

// Chunks are large and live briefly: their memory goes back to the system at once.
void limitMemory() {
  mallopt(M_MMAP_THRESHOLD, 128 << 10);
  mallopt(M_ARENA_MAX, 2);
}

int forwardAll(const forward::Options& options) {
  const forward::NatsLibrary library;
  try {
    return forward::Forwarder(options).run();
  } catch (const forward::Refused& e) {
    forward::logError("main", e.what());
    return forward::kUsage;
  } catch (const std::exception& e) {
    forward::logError("main", e.what());
    return forward::kFailed;
  }
}

}  // namespace

int main(int argc, char** argv) {
  forward::Options options;
  if (const auto exitCode = forward::parseOptions(argc, argv, options)) {
    return *exitCode;
  }
  occupyStandardFiles();
  prepareSignals();
  limitMemory();
  return forwardAll(options);
}
