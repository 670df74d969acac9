#include "send.hpp"

#include <csignal>
#include <cstdio>
#include <optional>

#include "common/queue_rules.hpp"
#include "exit_code.hpp"
#include "input.hpp"
#include "output.hpp"
#include "units.hpp"

namespace tool {
namespace {

void requireQueueName(const std::string& name) {
  try {
    checkFixedQueueName(name);
  } catch (const std::invalid_argument& e) {
    throw Failure(kUsage, e.what());
  }
}

std::optional<orvane::Lease> leaseFrom(const Destination& destination, unsigned int timeout) {
  if (!destination.socket) {
    return std::nullopt;
  }
  try {
    return std::optional<orvane::Lease>(std::in_place, *destination.socket, timeout);
  } catch (const Ox_ErrnoException& e) {
    throw Failure(kNothingSent, "got no lease: " + e.message());
  }
}

// All of them before anything is sent, so that a misspelt name costs nothing.
std::vector<Input> openAll(const std::vector<std::string>& paths) {
  std::vector<Input> inputs;
  for (const std::string& path : paths) {
    inputs.emplace_back(path);
  }
  return inputs;
}

std::optional<std::uint64_t> totalSize(const std::vector<Input>& inputs) {
  std::uint64_t total = 0;
  for (const Input& input : inputs) {
    if (!input.size()) {
      return std::nullopt;
    }
    total += *input.size();
  }
  return total;
}

struct Totals {
  std::uint64_t files = 0;
  std::uint64_t bytes = 0;
  std::uint64_t segments = 0;
  double seconds = 0;
  std::string firstStream;
  std::string lastStream;
};

void add(const Sent& sent, Totals& totals) {
  ++totals.files;
  totals.bytes += sent.bytes;
  totals.segments += sent.segments;
  totals.seconds += sent.seconds;
  totals.lastStream = sent.stream;
  if (totals.files == 1) {
    totals.firstStream = sent.stream;
  }
}

std::string whileSending(const std::string& name, const Totals& totals, std::size_t files) {
  return "while sending " + name + " (" + std::to_string(totals.files) + " of " +
         counted(files, "file") + " stored)";
}

void sendAll(std::vector<Input>& inputs, PolledWriter& writer, const SendOptions& options,
             Interrupt& interrupt, orvane::Lease* lease, Totals& totals) {
  Progress progress(totalSize(inputs));
  for (Input& input : inputs) {
    try {
      add(sendStream(writer, input.reader(interrupt), options, progress, interrupt, lease), totals);
    } catch (const Failure& failure) {
      throw Failure(failure.code,
                    whileSending(input.name(), totals, inputs.size()) + ": " + failure.what());
    } catch (const Interrupted& interrupted) {
      throw Interrupted{interrupted.signal, whileSending(input.name(), totals, inputs.size())};
    }
  }
}

void printSummary(const Totals& totals) {
  std::string line =
      "stored " + counted(totals.files, "file") + ", " + std::to_string(totals.bytes) + " bytes, " +
      counted(totals.segments, "segment") + ", " + timeAndRate(totals.bytes, totals.seconds);
  line += totals.files == 1 ? ", stream " + totals.lastStream
                            : ", streams " + totals.firstStream + " to " + totals.lastStream;
  std::puts(line.c_str());
  try {
    requireOutput();
  } catch (const Failure& failure) {
    throw Failure(kNotReported,
                  std::string("everything is stored, but the summary is lost: ") + failure.what());
  }
}

}  // namespace

void sendFiles(const Destination& destination, const std::vector<std::string>& paths,
               const SendOptions& options) {
  if (!destination.socket) {
    requireQueueName(destination.queue);
  }
  signal(SIGPIPE, SIG_IGN);  // nobody who reads the summary is no reason to end before it
  std::vector<Input> inputs = openAll(paths);
  // Before signals are kept for later: there is nothing to tidy up yet.
  std::optional<orvane::Lease> lease = leaseFrom(destination, options.timeoutSeconds);
  orvane::Lease* const leased = lease ? &*lease : nullptr;
  Interrupt interrupt;
  PolledWriter writer(lease ? lease->queueName() : destination.queue,
                      std::chrono::seconds(options.timeoutSeconds), interrupt, leased);
  Totals totals;
  sendAll(inputs, writer, options, interrupt, leased, totals);
  printSummary(totals);
}

}  // namespace tool
