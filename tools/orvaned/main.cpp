// orvaned, the stream server.

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <optional>
#include <orvane/orvane.hpp>
#include <stdexcept>
#include <string>

#include "log.hpp"
#include "options.hpp"
#include "store/store.hpp"
#include "supervisor/log_writer.hpp"
#include "supervisor/supervisor.hpp"
#include "worker/capture.hpp"
#include "worker/try_confinement.hpp"
#include "worker/worker_user.hpp"

namespace {

using orvane::server::LEVEL_ERROR;
using orvane::server::LEVEL_INFO;
using orvane::server::LEVEL_WARNING;
using orvane::server::Logger;
using orvaned::doublePercent;

constexpr int kFailed = 1;

// Twice the files that the supervisor or one of its processes has open with one fixed queue, one
// lease, a capture and several streams.
constexpr rlim_t kFewestFiles = 64;

void prepareSignals() {
  const sigset_t signals = orvaned::supervisorSignals();
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  // A file-size limit and a closed standard error are to fail the call, not to end the process.
  struct sigaction action = {};
  action.sa_handler = SIG_IGN;
  sigaction(SIGXFSZ, &action, nullptr);
  sigaction(SIGPIPE, &action, nullptr);
}

// If standard error was closed, the first file of the store would get its number, and so the lines
// of the log.
void occupyStandardFiles() {
  int fd = 0;
  while (fd >= 0 && fd <= STDERR_FILENO) {
    fd = open("/dev/null", O_RDWR | O_CLOEXEC);
  }
  close(fd);
}

// A lease needs files of this process for as long as it lasts. Returns false if there may not be
// enough for the fixed queue and one lease.
bool allowManyFiles() {
  rlimit files = {};
  if (getrlimit(RLIMIT_NOFILE, &files) != 0) {
    return true;
  }
  files.rlim_cur = files.rlim_max;
  setrlimit(RLIMIT_NOFILE, &files);
  if (files.rlim_max >= kFewestFiles) {
    return true;
  }
  const std::string text = "orvaned: it may open only " + std::to_string(files.rlim_max) +
                           " files at a time, and needs " + std::to_string(kFewestFiles) +
                           " for a queue and a lease: raise the limit (ulimit -n, or the service's "
                           "LimitNOFILE=)\n";
  std::fputs(text.c_str(), stderr);
  return false;
}

// Tries the confinement before the first producer comes, because this system may not allow it.
void prepareConfinement(orvaned::Options& options, const Logger& log) {
  const orvaned::WorkerUserChoice choice = orvaned::chooseWorkerUser(options.workerUser);
  options.confinement.user = choice.user;
  if (!choice.warning.empty()) {
    log.log(LEVEL_WARNING, __func__, 0, "%s", choice.warning.c_str());
  }
  for (const auto& line : orvaned::tryConfinement(options.confinement)) {
    log.log(line.isWarning ? LEVEL_WARNING : LEVEL_INFO, __func__, 0, "%s", line.text.c_str());
  }
}

bool serve(orvaned::Options& options, const Logger& log, orvaned::LogWriter& logWriter) {
  orvaned::checkWritable(options.store);
  orvaned::checkCapture(options.capture);
  prepareConfinement(options, log);
  orvaned::Supervisor supervisor(options);
  const std::size_t messageSize = options.geometry.messageSize;
  if (messageSize < tool::messageSizeFor(1)) {
    log.log(LEVEL_WARNING, __func__, 0,
            "--message-size %zu is less than %zu: a record of the largest size cannot pass",
            messageSize, tool::messageSizeFor(1));
  }
  return supervisor.run(logWriter);
}

}  // namespace

int main(int argc, char** argv) {
  orvaned::Options options;
  if (const auto exitCode = orvaned::parseOptions(argc, argv, options)) {
    return *exitCode;
  }
  occupyStandardFiles();
  prepareSignals();
  if (!allowManyFiles()) {
    return orvaned::kUsageError;
  }
  orvaned::startLog(options.logLevel, options.trace);
  const Logger log("orvaned");
  std::optional<orvaned::LogWriter> logWriter;
  int exitCode = kFailed;
  try {
    logWriter.emplace();
    exitCode = serve(options, log, *logWriter) ? 0 : kFailed;
  } catch (const std::invalid_argument& e) {
    log.log(LEVEL_ERROR, __func__, orvaned::kUsageError, "%s", doublePercent(e.what()).c_str());
    exitCode = orvaned::kUsageError;
  } catch (const std::exception& e) {
    log.log(LEVEL_ERROR, __func__, kFailed, "%s", doublePercent(e.what()).c_str());
  }
  if (logWriter) {
    logWriter->finish();
  }
  return exitCode;
}
