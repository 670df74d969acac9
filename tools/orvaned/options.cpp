#include "options.hpp"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <orvane/orvane.hpp>
#include <orvane/server_status.hpp>
#include <stdexcept>
#include <vector>

#include "log.hpp"
#include "store_format/size_text.hpp"

namespace orvaned {
namespace {

constexpr std::size_t kMaxMessages = 4096;
constexpr std::size_t kMaxMessageSize = std::size_t{1} << 30;
constexpr std::size_t kMaxPairs = 4096;
constexpr std::uint32_t kMaxIdleLimit = 86400;
constexpr mode_t kMinMode = 0600;
constexpr int kCannotShow = 1;

constexpr char kDescription[] =
    "Takes streams of records from queues in shared memory and stores them.\n"
    "Runs until SIGTERM, SIGINT or SIGHUP; then takes what is queued and removes the queues, "
    "within\n15 seconds.";

std::string footer() {
  std::string text =
      "Each stream becomes a folder of the store, QUEUE-ID: a file for each segment with data, "
      "and\n"
      "a manifest that lists them and says how the stream ended. Records that belong to no stream\n"
      "are kept in QUEUE-outside-records. What a server that was killed left unfinished is "
      "checked\n"
      "and finished at the next start with the same queue and store.\n"
      "\n"
      "What is stored is on the disk itself, and survives a power cut, with --sync\n"
      "  always   before its batch is answered\n"
      "  segment  at the end of each segment and each stream\n"
      "  none     when the system sees fit\n"
      "A killed server loses nothing that was answered, with any of them.\n"
      "\n"
      "Answers to a producer, besides 0 for success:\n";
  for (const orvane::StatusMeaning& status : orvane::kStatusMeanings) {
    text +=
        "  " + std::to_string(status.status) + "  " + status.name + ": " + status.meaning + "\n";
  }
  return text +
         "\n"
         "Log lines go to standard error: TIME KIND CODE COMPONENT::FUNCTION: MESSAGE. TIME is\n"
         "UTC, to the millisecond. KIND is info, auth, warning or error, of which --log-level\n"
         "drops those before the one it names; --trace adds trace, enter and leave. CODE is 0\n"
         "unless something failed.\n"
         "\n"
         "Exit codes: 0 stopped by a signal; 1 could not start, or the queue failed;\n"
         "2 wrong usage, or too low a limit on open files.";
}

// A size with a unit, or none; `text` then holds the bytes.
std::string toBytes(std::string& text) {
  const auto bytes = tool::bytesIn(text);
  text = bytes ? std::to_string(*bytes) : text;
  return bytes ? "" : tool::kNoSize;
}

std::string checkLevel(const std::string& text) {
  return levelNamed(text) ? "" : "must be info, auth, warning or error";
}

std::string checkMode(const std::string& text) {
  const bool octal =
      !text.empty() && text.size() <= 4 && text.find_first_not_of("01234567") == std::string::npos;
  const unsigned long mode = octal ? std::stoul(text, nullptr, 8) : 0;
  if ((mode & kMinMode) != kMinMode || mode > 0777) {
    return "must be octal, 0600 to 0777, and let the owner read and write";
  }
  return "";
}

// The help or the version, on standard output.
int show(const CLI::App& app, const CLI::Success& what) {
  app.exit(what);
  std::cout.flush();
  if (!std::cout) {
    std::cerr << "orvaned: cannot write to standard output\n";
    return kCannotShow;
  }
  return 0;
}

std::optional<Sync> syncNamed(const std::string& text) {
  if (text == "always") {
    return Sync::always;
  }
  if (text == "segment") {
    return Sync::segment;
  }
  return text == "none" ? std::optional(Sync::none) : std::nullopt;
}

std::string checkSync(const std::string& text) {
  return syncNamed(text) ? "" : "must be always, segment or none";
}

// True, so that a part stays, unless --without names it.
bool keeps(const std::vector<std::string>& without, const char* part) {
  return std::find(without.begin(), without.end(), part) == without.end();
}

std::string checkPart(const std::string& text) {
  return text == "capset" || text == "landlock" || text == "seccomp"
             ? ""
             : "must be capset, landlock or seccomp";
}

}  // namespace

std::optional<int> parseOptions(int argc, const char* const* argv, Options& options) {
  Geometry& geometry = options.geometry;
  std::string mode = "0600";
  std::string sync = "segment";
  std::string level = "info";
  std::vector<std::string> without;
  CLI::App app(kDescription, "orvaned");
  app.footer(footer());
  app.set_version_flag("--version", "orvaned " ORVANE_VERSION);
  app.add_option("--queue", options.queue,
                 "Name of a queue for one producer at a time: letters, digits, _.-, no leading "
                 "dot, at most 200 bytes");
  app.add_option("--socket", options.socket,
                 "Unix socket at which each producer gets a queue of its own");
  app.add_option("--store", options.store,
                 "Folder to store into; it must exist. /dev/null: check, count and keep nothing")
      ->required();
  app.add_option("--messages", geometry.messages, "Messages that the queue holds, 1 to 4096")
      ->check(CLI::Range(std::size_t{1}, kMaxMessages))
      ->capture_default_str();
  app.add_option("--message-size", geometry.messageSize,
                 "Bytes of one message; the largest record needs 131128")
      ->transform(CLI::Validator(toBytes, ""))
      ->capture_default_str();
  app.add_option("--mode", mode, "Who may use the queue and the socket, as chmod's octal number")
      ->check(checkMode)
      ->capture_default_str();
  app.add_option("--sync", sync, "What survives a power cut: always, segment or none (see below)")
      ->check(checkSync)
      ->capture_default_str();
  app.add_option("--pairs-per-user", options.pairsPerUser,
                 "Leases that one user may have at a time, 1 to 4096")
      ->check(CLI::Range(std::size_t{1}, kMaxPairs))
      ->capture_default_str();
  app.add_option("--shm-limit", options.shmLimit,
                 "Bytes of /dev/shm that all leases may take, such as 512MiB; half of it otherwise")
      ->transform(CLI::Validator(toBytes, ""));
  app.add_option("--idle-limit", options.idleLimit,
                 "Seconds without a record after which a queue that was used is made anew; its "
                 "producer died, maybe. 0: never")
      ->check(CLI::Range(0U, kMaxIdleLimit))
      ->capture_default_str();
  app.add_option("--log-level", level, "Lowest level to log: info, auth, warning or error")
      ->check(checkLevel)
      ->capture_default_str();
  app.add_flag("--trace", options.trace, "Log each batch and each answer too");
  app.add_option("--capture", options.capture,
                 "Append every message that comes, good or bad, to this file, for orvane dump");
  app.add_option(
      "--worker-user", options.workerUser,
      "User that the workers of a server run as that runs as root; by default orvaned, or "
      "65534 where there is no such user. root: the server's own");
  app.add_option("--without", without,
                 "Do not confine workers by this: capset, landlock or seccomp. May be repeated")
      ->check(checkPart)
      ->expected(1)
      ->take_all();
  try {
    app.parse(argc, argv);
    if (options.queue.empty() && options.socket.empty()) {
      throw CLI::RequiredError("--queue or --socket");
    }
    checkOptions(options);
  } catch (const CLI::Success& e) {
    return show(app, e);
  } catch (const std::exception& e) {  // CLI::ParseError, or of checkOptions
    std::cerr << "orvaned: " << e.what() << " (orvaned --help shows the usage)\n";
    return kUsageError;
  }
  geometry.mode = static_cast<mode_t>(std::stoul(mode, nullptr, 8));
  options.sync = *syncNamed(sync);
  options.logLevel = *levelNamed(level);
  options.confinement.capabilities = keeps(without, "capset");
  options.confinement.landlock = keeps(without, "landlock");
  options.confinement.seccomp = keeps(without, "seccomp");
  return std::nullopt;
}

void checkOptions(const Options& options) {
  if (!options.queue.empty()) {
    tool::checkFixedQueueName(options.queue);
  }
  const std::size_t size = options.geometry.messageSize;
  if (size < tool::smallestMessageSize()) {
    throw std::invalid_argument("--message-size " + std::to_string(size) +
                                " is too small: a record needs " +
                                std::to_string(tool::smallestMessageSize()) + " and its data");
  }
  if (size > kMaxMessageSize) {
    throw std::invalid_argument("--message-size " + std::to_string(size) +
                                " is too large: use at most " + std::to_string(kMaxMessageSize));
  }
}

}  // namespace orvaned
