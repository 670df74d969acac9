#include "demo.hpp"

#include <unistd.h>

#include <random>

#include "compare.hpp"
#include "demo_source.hpp"
#include "polled_writer.hpp"
#include "progress.hpp"
#include "server_process.hpp"
#include "stream.hpp"
#include "temp_folder.hpp"
#include "units.hpp"

namespace tool {
namespace {

namespace fs = std::filesystem;

std::string privateQueueName() {
  return "orvane-demo-" + std::to_string(getpid()) + "-" + std::to_string(std::random_device()());
}

Sent sendTo(const std::string& queueName, DemoSource& source, const fs::path& spool,
            Interrupt& interrupt) {
  const SendOptions options;
  PolledWriter writer(queueName, std::chrono::seconds(options.timeoutSeconds), interrupt);
  Progress progress(source.size());
  return sendStream(writer, source.readFirst(spool, interrupt), options, progress, interrupt);
}

}  // namespace

std::string runDemo(const std::string& path) {
  DemoSource source(path);
  Interrupt interrupt(SIGCHLD);  // so that a server that dies is noticed at once
  const TempFolder folder(source.size().value_or(0));
  const fs::path store = folder.path() / "store";
  fs::create_directory(store);

  const std::string queueName = privateQueueName();
  ServerProcess server(queueName, store, folder.path() / "log");
  Sent sent;
  try {
    server.waitUntilReady(interrupt);
    sent = sendTo(queueName, source, folder.path() / "input", interrupt);
    requireSameBytes(store / (queueName + "-" + sent.stream), source.readAgain(interrupt),
                     interrupt);
  } catch (const Interrupted& interrupted) {
    if (interrupted.signal == SIGCHLD) {
      server.throwEnded();
    }
    throw;
  }
  server.stop();
  return "OK " + std::to_string(sent.bytes) + " bytes, " + counted(sent.batches, "batch") + ", " +
         counted(sent.segments, "segment") + ", " + timeAndRate(sent.bytes, sent.seconds) +
         ", identical";
}

}  // namespace tool
