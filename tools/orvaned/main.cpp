// orvaned, the stream server.

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <exception>
#include <orvane/orvane.hpp>

#include "options.hpp"
#include "queue_pair.hpp"
#include "store.hpp"
#include "worker.hpp"

namespace {

volatile std::sig_atomic_t stopRequested = 0;

void installSignalHandlers() {
  struct sigaction action = {};
  action.sa_handler = [](int) { stopRequested = 1; };
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);
  // A file-size limit and a closed standard error are to be errors of the call, not the end.
  action.sa_handler = SIG_IGN;
  sigaction(SIGXFSZ, &action, nullptr);
  sigaction(SIGPIPE, &action, nullptr);
}

// Where standard error was closed, the first file of the store would take its number, and with it
// the lines of the log.
void occupyStandardFiles() {
  int fd = 0;
  while (fd >= 0 && fd <= STDERR_FILENO) {
    fd = open("/dev/null", O_RDWR | O_CLOEXEC);
  }
  close(fd);
}

void serve(const orvaned::Options& options) {
  orvaned::checkOptions(options);
  const orvaned::Geometry& geometry = options.geometry;
  orvaned::Store store(options.store, options.queue);
  orvaned::QueuePair queues(options.queue, geometry);
  orvaned::Worker worker(options.queue, queues, store);
  if (geometry.messageSize < tool::messageSizeFor(1)) {
    WarningA(0, "--message-size %zu is less than %zu: a record of the largest size cannot pass",
             geometry.messageSize, tool::messageSizeFor(1));
  }
  InfoA(0, "serving queue %s (%zu messages of %zu bytes), storing into %s", options.queue.c_str(),
        geometry.messages, geometry.messageSize, options.store.c_str());
  worker.run(stopRequested);
  InfoA(0, "stopped serving queue %s", options.queue.c_str());
}

}  // namespace

int main(int argc, char** argv) {
  orvaned::Options options;
  if (const auto exitCode = orvaned::parseOptions(argc, argv, options)) {
    return *exitCode;
  }
  occupyStandardFiles();
  installSignalHandlers();
  try {
    serve(options);
    return 0;
  } catch (const std::exception& e) {
    ErrorA(1, "%s", e.what());
    return 1;
  }
}
