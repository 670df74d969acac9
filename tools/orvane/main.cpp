// The command orvane.

#include <signal.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cstdio>
#include <exception>
#include <string>

#include "commands/commands.hpp"
#include "exit.hpp"
#include "interrupt.hpp"

namespace {

int run(const tool::Command& command) {
  const std::string name = command.options->get_name();
  try {
    command.run();
    tool::requireOutput();
    return tool::kStored;
  } catch (const tool::Failure& failure) {
    std::fprintf(stderr, "orvane %s: %s\n", name.c_str(), failure.what());
    return failure.code;
  } catch (const tool::Interrupted& interrupted) {
    std::fprintf(stderr, "orvane %s: interrupted%s%s\n", name.c_str(),
                 interrupted.during.empty() ? "" : " ", interrupted.during.c_str());
    signal(interrupted.signal, SIG_DFL);
    raise(interrupted.signal);
    return 128 + interrupted.signal;  // reached if the parent had blocked the signal
  }
}

int parseAndRun(int argc, char** argv) {
  CLI::App app("Send streams of records to a local server, and look at its queues", "orvane");
  app.set_version_flag("--version", tool::kVersion);
  app.require_subcommand(1);
  app.failure_message([](const CLI::App*, const CLI::Error& error) {
    return std::string("orvane: ") + error.what() + " (orvane --help shows the usage)\n";
  });
  const std::array commands = {tool::addSend(app), tool::addDemo(app),  tool::addLs(app),
                               tool::addStat(app), tool::addClean(app), tool::addDump(app)};
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (app.exit(e) != 0) {
      return tool::kUsage;
    }
    tool::requireOutput();  // the help or the version
    return 0;
  }
  const auto asked = std::find_if(commands.begin(), commands.end(),
                                  [](const auto& command) { return command.options->parsed(); });
  return run(*asked);  // the parser requires one
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
