// orvaned, the stream server.

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <exception>
#include <orvane/orvane.hpp>

#include "log.hpp"
#include "options.hpp"
#include "queue_pair.hpp"
#include "recovery.hpp"
#include "store.hpp"
#include "worker.hpp"

namespace {

using orvane::server::LEVEL_ERROR;
using orvane::server::LEVEL_INFO;
using orvane::server::LEVEL_WARNING;
using orvane::server::Logger;
using orvaned::doublePercent;

constexpr int kFailed = 1;

sigset_t endingSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  return signals;
}

// The signals that end the server are blocked, and taken where it pauses: nothing is interrupted.
bool endingSignalWithin(std::chrono::microseconds pause) {
  const sigset_t signals = endingSignals();
  const timespec wait = {0, std::chrono::nanoseconds(pause).count()};
  return sigtimedwait(&signals, nullptr, &wait) > 0;
}

void prepareSignals() {
  const sigset_t signals = endingSignals();
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  // A file-size limit and a closed standard error are to be errors of the call, not the end.
  struct sigaction action = {};
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

void serve(const orvaned::Options& options, const Logger& log) {
  orvaned::checkOptions(options);
  const orvaned::Geometry& geometry = options.geometry;
  orvaned::Store store(options.store, options.queue, options.sync);
  orvaned::QueuePair queues(options.queue, geometry);
  orvaned::recoverStreams(options.store, options.queue, options.sync);
  orvaned::Worker worker(options.queue, queues, store);
  if (geometry.messageSize < tool::messageSizeFor(1)) {
    log.log(LEVEL_WARNING, __func__, 0,
            "--message-size %zu is less than %zu: a record of the largest size cannot pass",
            geometry.messageSize, tool::messageSizeFor(1));
  }
  const std::string queue = doublePercent(options.queue);
  log.log(LEVEL_INFO, __func__, 0, "serving queue %s (%zu messages of %zu bytes), storing into %s",
          queue.c_str(), geometry.messages, geometry.messageSize,
          doublePercent(options.store).c_str());
  worker.run(endingSignalWithin);
  log.log(LEVEL_INFO, __func__, 0, "stopped serving queue %s", queue.c_str());
}

}  // namespace

int main(int argc, char** argv) {
  orvaned::Options options;
  if (const auto exitCode = orvaned::parseOptions(argc, argv, options)) {
    return *exitCode;
  }
  occupyStandardFiles();
  prepareSignals();
  orvaned::startLog(options.logLevel, options.trace);
  const Logger log("orvaned");
  try {
    serve(options, log);
    return 0;
  } catch (const std::exception& e) {
    log.log(LEVEL_ERROR, __func__, kFailed, "%s", doublePercent(e.what()).c_str());
    return kFailed;
  }
}
