#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <system_error>
#include <vector>

#include "commands/commands.hpp"
#include "commands/demo_source.hpp"
#include "exit.hpp"
#include "json.hpp"
#include "store_format/manifest.hpp"
#include "store_format/stream_id.hpp"
#include "transport/polled_writer.hpp"
#include "transport/progress.hpp"
#include "transport/send_stream.hpp"
#include "transport/server_process.hpp"
#include "units.hpp"

namespace tool {
namespace {

namespace fs = std::filesystem;

fs::path parentFolder() {
  const char* configured = std::getenv("TMPDIR");
  return configured != nullptr && *configured != '\0' ? configured : "/tmp";
}

void requireSpace(const fs::path& parent, std::uint64_t needed) {
  struct statvfs space = {};
  if (statvfs(parent.c_str(), &space) != 0) {
    return;  // mkdtemp() will fail and give the reason
  }
  const std::uint64_t available = std::uint64_t{space.f_bavail} * space.f_frsize;
  if (available < needed) {
    throw Failure(kNothingSent, parent.string() + " has " +
                                    bytesText(static_cast<double>(available)) + " free and " +
                                    bytesText(static_cast<double>(needed)) +
                                    " are needed: set TMPDIR to a folder with more room");
  }
}

// A private folder in TMPDIR, or in /tmp, which is removed with everything in it.
class TempFolder {
 public:
  // Throws Failure when it cannot be made or when `needed` bytes would not fit into it.
  explicit TempFolder(std::uint64_t needed);
  ~TempFolder();
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  const fs::path& path() const { return folder; }

 private:
  fs::path folder;
};

TempFolder::TempFolder(std::uint64_t needed) {
  const fs::path parent = parentFolder();
  requireSpace(parent, needed);
  std::string made = parent / "orvane-demo-XXXXXX";
  if (mkdtemp(made.data()) == nullptr) {
    throw Failure(kNothingSent, "cannot make a folder in " + parent.string() + ": " +
                                    std::strerror(errno) +
                                    "; set TMPDIR to a folder that can be written");
  }
  folder = made;
}

TempFolder::~TempFolder() {
  std::error_code ignored;
  fs::remove_all(folder, ignored);
}

constexpr std::size_t kBlock = 1 << 20;

std::vector<fs::path> segmentFiles(const fs::path& streamFolder) {
  const fs::path manifest = streamFolder / kManifest;
  if (!fs::exists(manifest)) {
    throw Failure(kUnknown, "the stored stream has no manifest in " + streamFolder.string());
  }
  std::vector<fs::path> files;
  for (const SegmentSummary& segment : readManifest(manifest.string()).segments) {
    if (!segment.file.empty()) {
      files.push_back(streamFolder / segment.file);
    }
  }
  return files;
}

[[noreturn]] void differs(std::uint64_t offset, const char* how) {
  throw Failure(kUnknown, "what was stored differs at byte " + std::to_string(offset) + ": " + how);
}

std::uint64_t firstDifference(const std::vector<unsigned char>& a,
                              const std::vector<unsigned char>& b) {
  const auto found = std::mismatch(a.begin(), a.end(), b.begin());
  return static_cast<std::uint64_t>(found.first - a.begin());
}

// Compares the segments of a stored stream, in the order of its manifest, with what `source`
// delivers. Throws Failure with the place of the first difference.
void requireSameBytes(const fs::path& streamFolder, const Reader& source, Interrupt& interrupt) {
  std::vector<unsigned char> stored(kBlock);
  std::vector<unsigned char> expected(kBlock);
  std::uint64_t offset = 0;
  for (const fs::path& file : segmentFiles(streamFolder)) {
    Input segment(file);
    while (const std::size_t size = segment.read(stored.data(), kBlock, interrupt)) {
      const std::size_t sourceSize = source(expected.data(), size);
      if (std::memcmp(stored.data(), expected.data(), sourceSize) != 0) {
        differs(offset + firstDifference(stored, expected), "another value");
      }
      offset += sourceSize;
      if (sourceSize < size) {
        differs(offset, "the source ends there");
      }
    }
  }
  if (source(expected.data(), 1) != 0) {
    differs(offset, "the store ends there");
  }
}

std::string privateQueueName() {
  return "orvane-demo-" + std::to_string(getpid()) + "-" + std::to_string(std::random_device()());
}

Sent sendTo(const std::string& queueName, DemoSource& source, const fs::path& spool,
            const SendOptions& options, Interrupt& interrupt) {
  PolledWriter writer(queueName, std::chrono::seconds(options.timeoutSeconds), interrupt);
  Progress progress(source.size(), options.quiet);
  return sendStream(writer, source.readFirst(spool, interrupt), options, progress, interrupt);
}

// Sends a file, standard input ("-"), or 256 MiB of generated data (an empty path) through a
// private server, and compares what was stored with the source. Returns what was sent, after it has
// removed all files. Throws Failure, Interrupted.
Sent runDemo(const std::string& path, const SendOptions& options) {
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
    sent = sendTo(queueName, source, folder.path() / "input", options, interrupt);
    requireSameBytes(store / streamId(queueName, "", sent.stream), source.readAgain(interrupt),
                     interrupt);
  } catch (const Interrupted& interrupted) {
    if (interrupted.signal == SIGCHLD) {
      server.throwEnded();
    }
    throw;
  }
  server.stop();
  return sent;
}

void printText(const Sent& sent) {
  std::printf("OK %s bytes, %s, %s, transfer %s, with the disk %s, identical\n",
              std::to_string(sent.bytes).c_str(), counted(sent.batches, "batch").c_str(),
              counted(sent.segments, "segment").c_str(),
              timeAndRate(sent.bytes, sent.transferSeconds).c_str(),
              timeAndRate(sent.bytes, sent.seconds).c_str());
}

void printJson(const Sent& sent) {
  printLine({{"records", sent.records},
             {"bytes", sent.bytes},
             {"batches", sent.batches},
             {"segments", sent.segments},
             {"transferSeconds", rounded(sent.transferSeconds)},
             {"seconds", rounded(sent.seconds)},
             {"identical", true}});
}

}  // namespace

Command addDemo(CLI::App& app) {
  CLI::App* demo = app.add_subcommand(
      "demo", "Send a file through a private orvaned, and compare what it stored");
  const auto file = std::make_shared<std::string>();
  const auto options = std::make_shared<SendOptions>();
  demo->set_version_flag("--version", kVersion);
  demo->add_option("FILE", *file,
                   "The file to send; - is standard input. Without FILE: 256 MiB of\n"
                   "generated data")
      ->type_name("");
  demo->add_flag("--quiet", options->quiet, kQuiet);
  demo->add_flag("-j,--json", options->json, kJson);
  demo->footer(
      "The store is a temporary folder in TMPDIR, or in /tmp; demo removes it at the end.\n"
      "The transfer ends when the server has taken all data. The time with the disk ends when the\n"
      "server has written all of it there, and has sent the receipt.\n"
      "Exit codes: 0 when every byte is the same, 2 for wrong use of the command, else 1.");
  return {demo, [file, options] {
            try {
              const Sent sent = runDemo(*file, *options);
              if (options->json) {
                printJson(sent);
              } else {
                printText(sent);
              }
            } catch (const Failure& failure) {
              throw Failure(kFailed, failure.what());
            }
          }};
}

}  // namespace tool
