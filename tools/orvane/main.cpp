#include <signal.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <orvane/orvane.hpp>
#include <stdexcept>

#include "clean.hpp"
#include "common/queue_rules.hpp"
#include "common/size_text.hpp"
#include "demo.hpp"
#include "dump.hpp"
#include "exit_code.hpp"
#include "interrupt.hpp"
#include "ls.hpp"
#include "output.hpp"
#include "send.hpp"
#include "stat.hpp"

namespace {

constexpr char kVersion[] = "orvane " ORVANE_VERSION;

struct Arguments {
  tool::Destination destination;
  std::vector<std::string> files;
  tool::SendOptions options;
  std::string demoFile;
  bool lsJson = false;
  std::string statQueue;
  tool::StatOptions stat;
  std::vector<std::string> cleanNames;
  bool dryRun = false;
  std::string dumped;
  bool dumpJson = false;
};

constexpr char kExitCodes[] = "Exit codes: 0 done, 1 failed, 2 wrong use of the command.";

// A size with a unit, or none; `text` then holds the bytes.
std::string toSegmentSize(std::string& text) {
  const auto bytes = tool::bytesIn(text);
  if (!bytes) {
    return tool::kNoSize;
  }
  text = std::to_string(*bytes);
  return *bytes == 0 ? "must be at least 1" : "";
}

CLI::App* addSend(CLI::App& app, Arguments& arguments) {
  CLI::App* send = app.add_subcommand("send", "Store files as streams of a running orvaned");
  send->set_version_flag("--version", kVersion);
  CLI::Option_group* where = send->add_option_group("+Where");
  where->add_option("--queue", arguments.destination.queue, "The queue that orvaned serves, or")
      ->type_name("NAME");
  where
      ->add_option("--socket", arguments.destination.socket,
                   "The socket at which orvaned leases queues")
      ->type_name("PATH");
  where->require_option(1);
  send->add_option("--segment-size", arguments.options.segmentSize,
                   "Start a new segment after so many bytes, such as 512KiB")
      ->transform(CLI::Validator(toSegmentSize, ""))
      ->type_name("SIZE")
      ->default_str("64MiB");
  send->add_option("--timeout", arguments.options.timeoutSeconds,
                   "Seconds to wait for room in the queue, and for the receipt, up to a day")
      ->check(CLI::Range(orvane::kMinTimeoutSeconds, orvane::kMaxTimeoutSeconds).description(""))
      ->type_name("SECONDS")
      ->capture_default_str();
  send->add_option("FILE", arguments.files, "Files to send, one stream each; - is standard input")
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
  return send;
}

CLI::App* addDemo(CLI::App& app, Arguments& arguments) {
  CLI::App* demo = app.add_subcommand(
      "demo", "Try it: send a file through a private orvaned, compare what it stored");
  demo->set_version_flag("--version", kVersion);
  demo->add_option("FILE", arguments.demoFile,
                   "What to send; - is standard input. Without it: 256 MiB made for the purpose")
      ->type_name("");
  demo->footer(
      "The store is a temporary folder under TMPDIR, or /tmp; nothing is left behind.\n"
      "Exit codes: 0 when every byte is the same, 2 for wrong use of the command, else 1.");
  return demo;
}

CLI::App* addLs(CLI::App& app, Arguments& arguments) {
  CLI::App* ls = app.add_subcommand("ls", "List the queues of this machine");
  ls->set_version_flag("--version", kVersion);
  ls->add_flag("--json", arguments.lsJson, "Print JSON");
  ls->footer(std::string("A - stands for what this user may not know, or orvaned did not publish.\n"
                         "SERVER is the process that serves the queue.\n") +
             kExitCodes);
  return ls;
}

std::string checkInterval(const std::string& text) {
  char* end = nullptr;
  const double seconds = std::strtod(text.c_str(), &end);
  const bool isNumber = !text.empty() && *end == '\0';
  return isNumber && seconds >= 0 && seconds <= 86400 ? "" : "must be seconds, 0 to 86400";
}

CLI::App* addStat(CLI::App& app, Arguments& arguments) {
  CLI::App* stat = app.add_subcommand("stat", "Show what a queue has carried so far, and how fast");
  stat->set_version_flag("--version", kVersion);
  stat->add_option("NAME", arguments.statQueue, "The queue")->required()->type_name("");
  stat->add_option("--interval", arguments.stat.interval,
                   "Seconds between the two looks that the rates come from; 0: no rates")
      ->check(checkInterval)
      ->type_name("SECONDS")
      ->capture_default_str();
  stat->add_flag("--json", arguments.stat.json, "Print JSON");
  stat->footer(
      std::string("The totals count from when the pair was made. Looking at them disturbs no "
                  "stream.\n") +
      kExitCodes);
  return stat;
}

CLI::App* addClean(CLI::App& app, Arguments& arguments) {
  CLI::App* clean = app.add_subcommand(
      "clean", "Remove what servers that are gone left in /dev/shm and /run/orvaned");
  clean->set_version_flag("--version", kVersion);
  clean
      ->add_option("NAME", arguments.cleanNames,
                   "Only of these queues, with a leased one of all that its server leased; with a "
                   "slash in it: of the server whose socket it is, or of all below this folder")
      ->type_name("");
  clean->add_flag("--dry-run", arguments.dryRun, "Only tell what would be removed");
  clean->footer(
      std::string("A server that starts does the same for its own queue and for leases. "
                  "Root cleans up after\neverybody's servers, others after their own.\n") +
      kExitCodes);
  return clean;
}

CLI::App* addDump(CLI::App& app, Arguments& arguments) {
  CLI::App* dump = app.add_subcommand("dump", "Show what a capture or a stored stream holds");
  dump->set_version_flag("--version", kVersion);
  dump->add_option("FILE", arguments.dumped,
                   "A capture (orvaned --capture), one batch, or a stored stream's folder; - is "
                   "standard input")
      ->required()
      ->type_name("");
  dump->add_flag("--json", arguments.dumpJson, "Print JSON, one object a line");
  dump->footer(
      std::string("Of each record, its data's length and Adler-32 are shown, and its header:\n"
                  "(seqNo,type,len,segAlg,segmentNo,segmentDone,segParam1,segParam2,segParam3,"
                  "magic).\n"
                  "Of a stored stream, the manifest, and whether each file is as it says. What is "
                  "broken is shown\n"
                  "with the reason; then it is 1 that the command exits with.\n") +
      kExitCodes);
  return dump;
}

void requireQueueName(const std::string& name) {
  try {
    tool::checkQueueName(name);
  } catch (const std::invalid_argument& e) {
    throw tool::Failure(tool::kUsage, e.what());
  }
}

template <typename Command>
int run(const std::string& name, Command command) {
  try {
    command();
    tool::requireOutput();
    return tool::kStored;
  } catch (const tool::Failure& failure) {
    std::fprintf(stderr, "%s: %s\n", name.c_str(), failure.what());
    return failure.code;
  } catch (const tool::Interrupted& interrupted) {
    std::fprintf(stderr, "%s: interrupted%s%s\n", name.c_str(),
                 interrupted.during.empty() ? "" : " ", interrupted.during.c_str());
    signal(interrupted.signal, SIG_DFL);
    raise(interrupted.signal);
    return 128 + interrupted.signal;  // for a parent that had it blocked
  }
}

void cleanNamed(const std::vector<std::string>& names, bool dryRun) {
  std::vector<std::string> queues;
  std::vector<std::string> sockets;
  for (const std::string& name : names) {
    if (name.find('/') != std::string::npos) {
      sockets.push_back(name);
    } else {
      requireQueueName(name);
      queues.push_back(name);
    }
  }
  tool::cleanUp(queues, sockets, dryRun);
}

int parseAndRun(int argc, char** argv) {
  CLI::App app("Streams of records to a local server, over shared memory", "orvane");
  app.set_version_flag("--version", kVersion);
  app.require_subcommand(1);
  app.failure_message([](const CLI::App*, const CLI::Error& error) {
    return std::string("orvane: ") + error.what() + " (orvane --help shows the usage)\n";
  });
  Arguments arguments;
  const CLI::App* send = addSend(app, arguments);
  addDemo(app, arguments);
  const CLI::App* ls = addLs(app, arguments);
  const CLI::App* stat = addStat(app, arguments);
  const CLI::App* clean = addClean(app, arguments);
  const CLI::App* dump = addDump(app, arguments);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (app.exit(e) != 0) {
      return tool::kUsage;
    }
    tool::requireOutput();  // the help or the version
    return 0;
  }
  if (send->parsed()) {
    return run("orvane send",
               [&] { tool::sendFiles(arguments.destination, arguments.files, arguments.options); });
  }
  if (ls->parsed()) {
    return run("orvane ls", [&] { tool::listQueues(arguments.lsJson); });
  }
  if (stat->parsed()) {
    return run("orvane stat", [&] {
      requireQueueName(arguments.statQueue);
      tool::printStat(arguments.statQueue, arguments.stat);
    });
  }
  if (clean->parsed()) {
    return run("orvane clean", [&] { cleanNamed(arguments.cleanNames, arguments.dryRun); });
  }
  if (dump->parsed()) {
    return run("orvane dump", [&] { tool::dump(arguments.dumped, arguments.dumpJson); });
  }
  const int code =
      run("orvane demo", [&] { std::puts(tool::runDemo(arguments.demoFile).c_str()); });
  return code == tool::kStored ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  tool::occupyStandardFiles();
  try {
    return parseAndRun(argc, argv);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "orvane: %s\n", e.what());
    return tool::kNothingSent;
  }
}
