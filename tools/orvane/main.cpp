#include <signal.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <orvane/orvane.hpp>

#include "demo.hpp"
#include "exit_code.hpp"
#include "interrupt.hpp"
#include "send.hpp"

namespace {

constexpr char kVersion[] = "orvane " ORVANE_VERSION;

struct Arguments {
  tool::Destination destination;
  std::vector<std::string> files;
  tool::SendOptions options;
  std::string demoFile;
};

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
      ->transform(CLI::AsSizeValue(false).description(""))
      ->check([](const std::string& size) { return size == "0" ? "must be at least 1" : ""; })
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
      "  5  an input could not be read to its end; its stream is marked as stopped");
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

template <typename Command>
int run(const std::string& name, Command command) {
  try {
    command();
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

int parseAndRun(int argc, char** argv) {
  CLI::App app("Streams of records to a local server, over shared memory", "orvane");
  app.set_version_flag("--version", kVersion);
  app.require_subcommand(1);
  Arguments arguments;
  const CLI::App* send = addSend(app, arguments);
  addDemo(app, arguments);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? 0 : tool::kUsage;
  }
  if (send->parsed()) {
    return run("orvane send",
               [&] { tool::sendFiles(arguments.destination, arguments.files, arguments.options); });
  }
  const int code =
      run("orvane demo", [&] { std::puts(tool::runDemo(arguments.demoFile).c_str()); });
  return code == tool::kStored ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return parseAndRun(argc, argv);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "orvane: %s\n", e.what());
    return tool::kNothingSent;
  }
}
