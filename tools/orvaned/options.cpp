#include "options.hpp"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <memory>
#include <orvane/orvane.hpp>
#include <orvane/server_status.hpp>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "command_line/number.hpp"
#include "command_line/wrong_use.hpp"
#include "log.hpp"
#include "store_format/size_text.hpp"
#include "store_format/zstd.hpp"

namespace orvaned {
namespace {

constexpr std::size_t kMaxMessages = 4096;
constexpr std::size_t kMaxPairs = 4096;
constexpr std::uint32_t kMaxIdleLimit = 86400;
constexpr mode_t kMinMode = 0600;
constexpr int kCannotShow = 1;

constexpr char kDescription[] =
    "Receives streams of records through queues in shared memory and stores them.\n"
    "Runs until SIGTERM, SIGINT or SIGHUP. Then it stores what is queued and removes the queues,\n"
    "within 15 seconds.";

// CLI11's own usage line does not show the required options.
class HelpFormatter : public CLI::Formatter {
 public:
  std::string make_usage(const CLI::App* /*app*/, std::string /*name*/) const override {
    return "\nUsage: orvaned --store FOLDER --queue NAME [OPTIONS]\n"
           "       orvaned --store FOLDER --socket PATH [OPTIONS]\n";
  }
};

std::string footer() {
  std::string text =
      R"(Each stream becomes a folder in the store: a file for each segment with data, and a manifest that
lists them and shows how the stream ended. The folder is called NAME-LABEL-TIME-PROCESS_NUMBER; NAME
is the queue's, or that of the socket, and LABEL is missing if the producer gave none. Records
outside a stream are kept in QUEUE-outside-records. If a server was killed, the next server that is
started with the same store checks and finishes its streams.

--sync decides when stored data is on the disk itself, where it survives a power cut:
  always   before its batch is answered
  segment  after the end of its segment, while the next one comes in: before the end of that one
           is answered, and before the stream's receipt
  none     when the system decides to
If the server is killed, nothing that was answered is lost, with any of the three.

--compress writes a segment into a file segment-NUMBER.zst, which zstdcat reads, if its first MiB
shrinks; otherwise its file stays plain. Receipts and totals count the data before compression.

A SIZE is a number of bytes with or without a unit. K or KiB is 1024 bytes, M or MiB is 1024 of
these, and so on; kB, MB and so on are powers of 1000.

Statuses of responses to a producer, apart from 0 for success:
)";
  for (const orvane::StatusMeaning& status : orvane::kStatusMeanings) {
    text +=
        "  " + std::to_string(status.status) + "  " + status.name + ": " + status.meaning + "\n";
  }
  return text + R"(
Log lines go to standard error: TIME KIND CODE COMPONENT::FUNCTION: MESSAGE. TIME is UTC, with
milliseconds. KIND is info, auth, warning or error, and --log-level drops those before the one
that it names; --trace adds trace, enter and leave. CODE is 0 if nothing failed.

Exit codes: 0 stopped by a signal; 1 could not start, or the queue failed;
2 wrong usage, or the limit on open files is too low.)";
}

// Replaces a size, with or without a unit, by the number of bytes. Returns an error, or nothing.
std::string toBytes(std::string& text) {
  const auto bytes = tool::bytesIn(text);
  text = bytes ? std::to_string(*bytes) : text;
  return bytes ? "" : tool::kNoSize;
}

CLI::Option* addSize(CLI::App& app, const std::string& name, std::size_t& size,
                     const std::string& description) {
  return app.add_option(name, size, description)
      ->type_name("SIZE")
      ->transform(CLI::Validator(toBytes, ""));
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

// Writes the help or the version to standard output.
int show(const CLI::App& app, const CLI::Success& what) {
  app.exit(what);
  std::cout.flush();
  if (!std::cout) {
    std::cerr << "orvaned: cannot write to standard output\n";
    return kCannotShow;
  }
  return 0;
}

// Explains wrong use.
int refuse(const std::string& reason) {
  std::cerr << "orvaned: " << reason << " (orvaned --help shows the usage)\n";
  return kUsageError;
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

// The level in "zstd" or "zstd:LEVEL".
std::optional<int> compressionLevel(const std::string& text) {
  constexpr std::string_view kZstd = "zstd";
  if (text == kZstd) {
    return tool::Compressor::kDefault;
  }
  for (int level = tool::Compressor::kFastest; level <= tool::Compressor::kSmallest; ++level) {
    if (text == std::string(kZstd) + ":" + std::to_string(level)) {
      return level;
    }
  }
  return std::nullopt;
}

std::string checkCompression(const std::string& text) {
  if (!compressionLevel(text)) {
    return "must be zstd or zstd:LEVEL, with a level from " +
           std::to_string(tool::Compressor::kFastest) + " to " +
           std::to_string(tool::Compressor::kSmallest);
  }
  return tool::hasZstd()
             ? ""
             : "this orvaned was built without libzstd: use one that was built with it, "
               "or leave this option out";
}

// Is the part in use, because --without does not name it?
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
  std::string compression;
  std::string level = "info";
  std::vector<std::string> without;
  CLI::App app(kDescription, "orvaned");
  app.footer(footer());
  app.set_version_flag("--version", "orvaned " ORVANE_VERSION);
  app.formatter(std::make_shared<HelpFormatter>());
  app.add_option("--queue", options.queue,
                 "Name of a queue for one producer at a time: letters, digits and _.-,\n"
                 "at most " +
                     std::to_string(tool::kMaxQueueName) + " bytes, without a dot at the beginning")
      ->type_name("NAME");
  app.add_option("--socket", options.socket,
                 "Unix socket at which each producer gets its own queues or ring")
      ->type_name("PATH");
  app.add_option("--store", options.store,
                 "Folder to store into; it must exist. /dev/null: check and count the\n"
                 "records, and keep nothing")
      ->type_name("FOLDER")
      ->required();
  app.add_option("--messages", geometry.messages,
                 "Messages that a queue can hold, 1 to " + std::to_string(kMaxMessages))
      ->type_name("COUNT")
      ->transform(tool::numberFrom(1, kMaxMessages))
      ->capture_default_str();
  addSize(app, "--message-size", geometry.messageSize,
          "Size of one message, in bytes or such as 2MiB; the largest record\n"
          "needs " +
              std::to_string(tool::messageSizeFor(1)) + " bytes")
      ->capture_default_str();
  app.add_option("--mode", mode,
                 "Permissions of the queue and the socket: the octal number of chmod")
      ->type_name("MODE")
      ->check(checkMode)
      ->capture_default_str();
  app.add_option("--sync", sync,
                 "When stored data survives a power cut: always, segment or none (see\n"
                 "below)")
      ->type_name("WHEN")
      ->check(checkSync)
      ->capture_default_str();
  app.add_option("--compress", compression,
                 "Compress segments: zstd, or zstd:LEVEL with a level from " +
                     std::to_string(tool::Compressor::kFastest) + " (fastest) to\n" +
                     std::to_string(tool::Compressor::kSmallest) +
                     " (smallest); zstd alone is level " +
                     std::to_string(tool::Compressor::kDefault))
      ->type_name("METHOD")
      ->check(checkCompression);
  app.add_option(
         "--pairs-per-user", options.pairsPerUser,
         "Leases that one user may have at the same time, 1 to " + std::to_string(kMaxPairs))
      ->type_name("COUNT")
      ->transform(tool::numberFrom(1, kMaxPairs))
      ->capture_default_str();
  addSize(app, "--shm-limit", options.shmLimit,
          "Bytes of /dev/shm for all leases together, such as 512MiB; by default\n"
          "half of /dev/shm");
  addSize(app, "--ring-limit", options.ringLimit,
          "Bytes of memory for all rings together, such as 2GiB; by default a\n"
          "quarter of the memory");
  addSize(app, "--ring-limit-per-user", options.ringLimitPerUser,
          "Bytes of memory for all rings of one user; by default half of that");
  app.add_option("--idle-limit", options.idleLimit,
                 "Recreate a used fixed queue after this many seconds without a record\n"
                 "(0: never); its producer may have died")
      ->type_name("SECONDS")
      ->transform(tool::numberFrom(0, kMaxIdleLimit))
      ->capture_default_str();
  app.add_option("--log-level", level, "Lowest level to log: info, auth, warning or error")
      ->type_name("LEVEL")
      ->check(checkLevel)
      ->capture_default_str();
  app.add_flag("--trace", options.trace, "Also log each batch and each response");
  app.add_option("--capture", options.capture,
                 "Append every message, valid or not, to this file, for orvane dump")
      ->type_name("FILE");
  app.add_option("--worker-user", options.workerUser,
                 "User that the workers run as, if the server runs as root; by default\n"
                 "orvaned, or 65534 if there is no such user. root: workers stay root")
      ->type_name("USER");
  app.add_option("--without", without,
                 "Do not confine workers by this part: capset, landlock or seccomp. The\n"
                 "option may be repeated")
      ->type_name("PART")
      ->check(checkPart)
      ->expected(1)
      ->take_all();
  try {
    app.parse(argc, argv);
    if (options.queue.empty() && options.socket.empty()) {
      return refuse("--queue or --socket is required");
    }
    checkOptions(options);
  } catch (const CLI::Success& e) {
    return show(app, e);
  } catch (const CLI::ParseError& e) {
    return refuse(tool::wrongUse(app, e, {argv + std::min(argc, 1), argv + argc}));
  } catch (const std::invalid_argument& e) {  // of checkOptions()
    return refuse(e.what());
  }
  geometry.mode = static_cast<mode_t>(std::stoul(mode, nullptr, 8));
  options.sync = *syncNamed(sync);
  options.compressionLevel = compressionLevel(compression).value_or(0);
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
  if (size > tool::kMaxMessageSize) {
    throw std::invalid_argument("--message-size " + std::to_string(size) +
                                " is too large: use at most " +
                                std::to_string(tool::kMaxMessageSize));
  }
}

}  // namespace orvaned
