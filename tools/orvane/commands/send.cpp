#include <csignal>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <orvane/orvane.hpp>
#include <string>
#include <vector>

#include "commands/commands.hpp"
#include "exit.hpp"
#include "queue_list.hpp"
#include "store_format/size_text.hpp"
#include "transport/input.hpp"
#include "transport/polled_writer.hpp"
#include "transport/progress.hpp"
#include "transport/send_stream.hpp"
#include "units.hpp"

namespace tool {
namespace {

// A queue that is known by its name, or what is leased at a socket.
struct Destination {
  std::string queue;
  std::optional<std::string> socket;
  std::string transport = "auto";
};

orvane::Transport transportNamed(const std::string& name) {
  if (name == "ring") {
    return orvane::Transport::ring;
  }
  return name == "queue" ? orvane::Transport::queue : orvane::Transport::automatic;
}

std::optional<orvane::Lease> leaseFrom(const Destination& destination, unsigned int timeout) {
  if (!destination.socket) {
    return std::nullopt;
  }
  try {
    return std::optional<orvane::Lease>(std::in_place, *destination.socket, timeout,
                                        transportNamed(destination.transport));
  } catch (const Ox_ErrnoException& e) {
    throw Failure(kNothingSent, "got no lease: " + e.message());
  }
}

// Opens all files before anything is sent, so that nothing is sent if a name is misspelt.
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

struct Summary {
  std::uint64_t files = 0;
  std::uint64_t bytes = 0;
  std::uint64_t segments = 0;
  double seconds = 0;
  std::string firstStream;
  std::string lastStream;
};

void add(const Sent& sent, Summary& summary) {
  ++summary.files;
  summary.bytes += sent.bytes;
  summary.segments += sent.segments;
  summary.seconds += sent.seconds;
  summary.lastStream = sent.stream;
  if (summary.files == 1) {
    summary.firstStream = sent.stream;
  }
}

std::string whileSending(const std::string& name, const Summary& summary, std::size_t files) {
  return "while sending " + name + " (" + std::to_string(summary.files) + " of " +
         counted(files, "file") + " stored)";
}

// `send` sends one input.
using SendOne = std::function<Sent(const Reader&, Progress&)>;

void sendAll(std::vector<Input>& inputs, Interrupt& interrupt, const SendOne& send,
             Summary& summary) {
  Progress progress(totalSize(inputs));
  for (Input& input : inputs) {
    try {
      add(send(input.reader(interrupt), progress), summary);
    } catch (const Failure& failure) {
      throw Failure(failure.code,
                    whileSending(input.name(), summary, inputs.size()) + ": " + failure.what());
    } catch (const Interrupted& interrupted) {
      throw Interrupted{interrupted.signal, whileSending(input.name(), summary, inputs.size())};
    }
  }
}

void printSummary(const Summary& summary) {
  std::string line = "stored " + counted(summary.files, "file") + ", " +
                     std::to_string(summary.bytes) + " bytes, " +
                     counted(summary.segments, "segment") + ", " +
                     timeAndRate(summary.bytes, summary.seconds);
  line += summary.files == 1 ? ", stream " + summary.lastStream
                             : ", streams " + summary.firstStream + " to " + summary.lastStream;
  std::puts(line.c_str());
  try {
    requireOutput();
  } catch (const Failure& failure) {
    throw Failure(kNotReported,
                  std::string("everything is stored, but the summary is lost: ") + failure.what());
  }
}

// Stores each file as a stream; "-" is standard input. Prints one line of summary.
void sendFiles(const Destination& destination, const std::vector<std::string>& paths,
               const SendOptions& options) {
  if (!destination.socket) {
    requireFixedQueueName(destination.queue);
  }
  signal(SIGPIPE, SIG_IGN);  // sending goes on even if no process reads the summary
  std::vector<Input> inputs = openAll(paths);
  // Asked before signals are held back: a signal may end the process here, as nothing was sent yet.
  std::optional<orvane::Lease> lease = leaseFrom(destination, options.timeoutSeconds);
  Interrupt interrupt;
  const std::chrono::seconds timeout(options.timeoutSeconds);
  Summary summary;
  if (lease && lease->ring() != nullptr) {
    RingSender sender(*lease, timeout, interrupt);
    sendAll(
        inputs, interrupt,
        [&](const Reader& read, Progress& progress) {
          return sendStream(sender, read, options, progress, interrupt, *lease);
        },
        summary);
  } else {
    orvane::Lease* const leased = lease ? &*lease : nullptr;
    PolledWriter writer(lease ? lease->queueName() : destination.queue, timeout, interrupt, leased);
    sendAll(
        inputs, interrupt,
        [&](const Reader& read, Progress& progress) {
          return sendStream(writer, read, options, progress, interrupt, leased);
        },
        summary);
  }
  printSummary(summary);
}

struct Arguments {
  Destination destination;
  std::vector<std::string> files;
  SendOptions options;
};

// Checks a size with or without a unit, and replaces `text` by the number of bytes. Returns what is
// wrong with it, or "".
std::string toSegmentSize(std::string& text) {
  const auto bytes = bytesIn(text);
  if (!bytes) {
    return kNoSize;
  }
  text = std::to_string(*bytes);
  return *bytes == 0 ? "must be at least 1" : "";
}

// The library's own usage line does not show that --queue or --socket is required, and it shows the
// group of the two with its internal name.
class SendHelp : public CLI::Formatter {
 public:
  std::string make_usage(const CLI::App*, std::string) const override {
    return "Usage: orvane send [OPTIONS] (--queue NAME | --socket PATH) FILE...\n";
  }
  std::string make_expanded(const CLI::App* group) const override {
    return make_groups(group, CLI::AppFormatMode::Sub);
  }
};

}  // namespace

Command addSend(CLI::App& app) {
  CLI::App* send = app.add_subcommand("send", "Store each file as a stream of a running orvaned");
  const auto arguments = std::make_shared<Arguments>();
  send->set_version_flag("--version", kVersion);
  send->formatter(std::make_shared<SendHelp>());
  CLI::Option_group* where = send->add_option_group("+Where");
  where->add_option("--queue", arguments->destination.queue, "The queue that orvaned serves")
      ->type_name("NAME")
      ->group("Destination, exactly one of");
  where
      ->add_option("--socket", arguments->destination.socket,
                   "The socket at which orvaned gives leases")
      ->type_name("PATH")
      ->group("Destination, exactly one of");
  where->require_option(1);
  send->add_option("--transport", arguments->destination.transport,
                   "How a lease's records reach orvaned: auto (a ring, or a queue if\n"
                   "the server has no rings), ring or queue")
      ->check(CLI::IsMember({"auto", "ring", "queue"}).description(""))
      ->type_name("KIND")
      ->capture_default_str();
  send->add_option("--segment-size", arguments->options.segmentSize,
                   "Start a new segment after this many bytes, such as 512KiB")
      ->transform(CLI::Validator(toSegmentSize, ""))
      ->type_name("SIZE")
      ->default_str("64MiB");
  send->add_option("--timeout", arguments->options.timeoutSeconds,
                   "Wait at most this many seconds for room in the queue, and for the\n"
                   "receipt; 1 to 86400")
      ->check(CLI::Range(orvane::kMinTimeoutSeconds, orvane::kMaxTimeoutSeconds).description(""))
      ->type_name("SECONDS")
      ->capture_default_str();
  send->add_option("FILE", arguments->files,
                   "The files to send, one stream each; - is standard input")
      ->required()
      ->type_name("");
  send->footer(
      "Exit codes:\n"
      "  0  everything is stored: the server's receipt matches what was sent\n"
      "  1  nothing was sent: no such queue, no lease, a file that cannot be opened, ...\n"
      "  2  wrong use of the command\n"
      "  3  the server refused; its reason is printed\n"
      "  4  unknown: no receipt came in time, or the server died or went away\n"
      "  5  an input could not be read to its end; its stream is marked as stopped\n"
      "  6  everything is stored, but the summary could not be written");
  return {send,
          [arguments] { sendFiles(arguments->destination, arguments->files, arguments->options); }};
}

}  // namespace tool
