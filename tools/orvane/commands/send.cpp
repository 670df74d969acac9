#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <orvane/orvane.hpp>
#include <string>
#include <vector>

#include "command_line/number.hpp"
#include "commands/commands.hpp"
#include "exit.hpp"
#include "inspect/queue_use.hpp"
#include "json.hpp"
#include "queue_list.hpp"
#include "store_format/size_text.hpp"
#include "store_format/stream_id.hpp"
#include "transport/input.hpp"
#include "transport/leased_sender.hpp"
#include "transport/polled_writer.hpp"
#include "transport/progress.hpp"
#include "transport/send_stream.hpp"
#include "units.hpp"

namespace tool {
namespace {

// A queue that is known by its name, or what is leased at a socket.
struct Destination {
  std::optional<std::string> queue;
  std::optional<std::string> socket;
  std::string transport = "auto";
  std::optional<std::string> label;  // of all files; none: each file's name
  QueueUseOptions queueUse = {};
};

// The socket to use if neither a queue nor a socket was named.
constexpr char kSocketEnvironment[] = "ORVANE_SOCKET";

void completeFromEnvironment(Destination& destination) {
  const char* const socket = std::getenv(kSocketEnvironment);
  if (!destination.queue && !destination.socket && socket != nullptr && *socket != '\0') {
    destination.socket = socket;
  }
}

// Exactly one is required. CLI11 could check this too, but its text has its own names of options.
void requireOneDestination(const Destination& destination) {
  if (destination.queue && destination.socket) {
    throw Failure(kUsage, "--queue and --socket exclude each other");
  }
  if (!destination.queue && !destination.socket) {
    throw Failure(kUsage, "--queue NAME or --socket PATH is required");
  }
  if (destination.socket &&
      (destination.queueUse.waitSeconds > 0 || destination.queueUse.takeOver)) {
    throw Failure(kUsage, "--wait and --take-over are for --queue: each lease has one sender");
  }
  if (destination.queue && destination.label) {
    throw Failure(kUsage, "--label belongs to a lease: use --socket, or leave it out");
  }
}

orvane::Transport transportNamed(const std::string& name) {
  if (name == "ring") {
    return orvane::Transport::ring;
  }
  return name == "queue" ? orvane::Transport::queue : orvane::Transport::automatic;
}

// Returns a file's name as a label: without control characters, and cut before a whole character of
// UTF-8.
std::string labelOf(const std::string& path) {
  if (path == "-") {
    return "";
  }
  std::string label = std::filesystem::path(path).filename();
  std::replace_if(
      label.begin(), label.end(),
      [](const char& c) {
        return !orvane::isLabel({&c, 1});
      },
      '?');
  std::size_t size = std::min(label.size(), orvane::kLongestLabel);
  while (size > 0 && size < label.size() && (label[size] & 0xC0) == 0x80) {
    --size;
  }
  return label.substr(0, size);
}

// A file that is to be sent.
struct File {
  std::string path;
  std::string label;  // of its stream; empty: none
  Input input;
};

// Opens all files before anything is sent, so that nothing is sent if a name is misspelt.
std::vector<File> openAll(const Destination& destination, const std::vector<std::string>& paths) {
  std::vector<File> files;
  for (const std::string& path : paths) {
    const std::string label = destination.socket ? destination.label.value_or(labelOf(path)) : "";
    files.push_back({path, label, Input(path)});
  }
  return files;
}

std::optional<std::uint64_t> totalSize(const std::vector<File>& files) {
  std::uint64_t total = 0;
  for (const File& file : files) {
    if (!file.input.size()) {
      return std::nullopt;
    }
    total += *file.input.size();
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

// `name` is the NAME in the stream's id.
void printJson(const File& file, const std::string& name, const Sent& sent) {
  printLine({{"file", file.path},
             {"queue", name},
             {"stream", streamId(name, file.label, sent.stream)},
             {"label", file.label.empty() ? Json() : Json(file.label)},
             {"records", sent.records},
             {"bytes", sent.bytes},
             {"segments", sent.segments},
             {"seconds", rounded(sent.seconds)},
             {"end", "closed"}});
}

// Sends what it reads as one stream.
using SendOne = std::function<Sent(const Reader&, const std::string& label, Progress&)>;

void sendAll(std::vector<File>& files, const std::string& name, const SendOptions& options,
             Interrupt& interrupt, const SendOne& send, Summary& summary) {
  Progress progress(totalSize(files), options.quiet);
  for (File& file : files) {
    Input& input = file.input;
    try {
      const Sent sent = send(input.reader(interrupt), file.label, progress);
      add(sent, summary);
      if (options.json) {
        printJson(file, name, sent);
      }
    } catch (const Failure& failure) {
      const bool somethingWasSent = failure.code == kNothingSent && summary.files > 0;
      throw Failure(somethingWasSent ? kUnknown : failure.code,
                    whileSending(input.name(), summary, files.size()) + ": " + failure.what());
    } catch (const Interrupted& interrupted) {
      throw Interrupted{interrupted.signal, whileSending(input.name(), summary, files.size())};
    }
  }
}

void printText(const Summary& summary) {
  std::string line = "stored " + counted(summary.files, "file") + ", " +
                     std::to_string(summary.bytes) + " bytes, " +
                     counted(summary.segments, "segment") + ", " +
                     timeAndRate(summary.bytes, summary.seconds);
  line += summary.files == 1 ? ", stream " + summary.lastStream
                             : ", streams " + summary.firstStream + " to " + summary.lastStream;
  std::puts(line.c_str());
}

void printSummary(const Summary& summary, bool json) {
  if (!json) {
    printText(summary);
  }
  try {
    requireOutput();
  } catch (const Failure& failure) {
    throw Failure(kNotReported,
                  std::string("everything is stored, but the summary is lost: ") + failure.what());
  }
}

// Stores each file as a stream; "-" is standard input. Prints one line of summary or, as JSON, one
// line for each stream as soon as it is stored.
void sendFiles(const Destination& destination, const std::vector<std::string>& paths,
               const SendOptions& options) {
  requireOneDestination(destination);
  if (destination.queue) {
    requireFixedQueueName(*destination.queue);
  }
  signal(SIGPIPE, SIG_IGN);  // sending goes on even if no process reads the summary
  std::vector<File> files = openAll(destination, paths);
  Summary summary;
  if (destination.socket) {
    LeasedSender sender(*destination.socket, transportNamed(destination.transport), options,
                        files.front().label);
    Interrupt interrupt;
    sendAll(
        files, nameOfSocket(*destination.socket), options, interrupt,
        [&](const Reader& read, const std::string& label, Progress& progress) {
          return sender.send(read, label, progress, interrupt);
        },
        summary);
  } else {
    Interrupt interrupt;
    const Fd onlySender = becomeOnlySender(*destination.queue, destination.queueUse, interrupt);
    PolledWriter writer(*destination.queue, std::chrono::seconds(options.timeoutSeconds),
                        interrupt);
    sendAll(
        files, *destination.queue, options, interrupt,
        [&](const Reader& read, const std::string&, Progress& progress) {
          return sendStream(writer, read, options, progress, interrupt);
        },
        summary);
  }
  printSummary(summary, options.json);
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

std::string checkTransport(const std::string& text) {
  return text == "auto" || text == "ring" || text == "queue" ? "" : "must be auto, ring or queue";
}

std::string checkLabel(const std::string& text) {
  return orvane::isLabel(text) ? "" : "must have at most 128 bytes and no control characters";
}

// The library's own usage line does not show that --queue or --socket is required.
class SendHelp : public CLI::Formatter {
 public:
  std::string make_usage(const CLI::App*, std::string) const override {
    return "Usage: orvane send [OPTIONS] (--queue NAME | --socket PATH) FILE...\n";
  }
};

}  // namespace

Command addSend(CLI::App& app) {
  CLI::App* send = app.add_subcommand("send", "Store each file as a stream of a running orvaned");
  const auto arguments = std::make_shared<Arguments>();
  send->set_version_flag("--version", kVersion);
  send->formatter(std::make_shared<SendHelp>());
  send->add_option("-q,--queue", arguments->destination.queue, "The queue that orvaned serves")
      ->type_name("NAME")
      ->group("Destination, exactly one of");
  send->add_option("-s,--socket", arguments->destination.socket,
                   "The socket at which orvaned gives leases; by default, that of the\n"
                   "environment's ORVANE_SOCKET")
      ->type_name("PATH")
      ->group("Destination, exactly one of");
  send->add_option("-w,--wait", arguments->destination.queueUse.waitSeconds,
                   "If the queue is in use, wait up to this many seconds for it; 1 to\n"
                   "86400")
      ->transform(numberFrom(orvane::kMinTimeoutSeconds, orvane::kMaxTimeoutSeconds))
      ->type_name("SECONDS");
  send->add_flag("--take-over", arguments->destination.queueUse.takeOver,
                 "Cut off the queue's open stream, whose producer died or is no\n"
                 "orvane send");
  send->add_option("--transport", arguments->destination.transport,
                   "How a lease's records reach orvaned: auto (a ring, or a queue if\n"
                   "the server has no rings), ring or queue")
      ->check(checkTransport)
      ->type_name("KIND")
      ->capture_default_str();
  send->add_option("--label", arguments->destination.label,
                   "What the store calls the streams of a lease; by default, each file's\n"
                   "name, and nothing for standard input")
      ->check(checkLabel)
      ->type_name("TEXT");
  send->add_option("--segment-size", arguments->options.segmentSize,
                   "Start a new segment after this many bytes, such as 512KiB")
      ->transform(CLI::Validator(toSegmentSize, ""))
      ->type_name("SIZE")
      ->default_str("64MiB");
  send->add_option("-t,--timeout", arguments->options.timeoutSeconds,
                   "Wait at most this many seconds for room in the queue, and for the\n"
                   "receipt; 1 to 86400")
      ->transform(numberFrom(orvane::kMinTimeoutSeconds, orvane::kMaxTimeoutSeconds))
      ->type_name("SECONDS")
      ->capture_default_str();
  send->add_flag("--quiet", arguments->options.quiet, kQuiet);
  send->add_flag("-j,--json", arguments->options.json, kJson);
  send->add_option("FILE", arguments->files,
                   "The files to send, one stream each; - is standard input")
      ->required()
      ->type_name("");
  send->footer(std::string(kSizes) +
               "\nExit codes:\n"
               "  0  everything is stored: the server's receipt matches what was sent\n"
               "  1  nothing was sent: no such queue, no lease, a file that cannot be opened, ...\n"
               "  2  wrong use of the command\n"
               "  3  the server refused; its reason is printed\n"
               "  4  unknown: no receipt came in time, or the server died or went away\n"
               "  5  an input could not be read to its end; its stream is marked as stopped\n"
               "  6  everything is stored, but the summary could not be written");
  return {send, [arguments] {
            completeFromEnvironment(arguments->destination);
            sendFiles(arguments->destination, arguments->files, arguments->options);
          }};
}

}  // namespace tool
