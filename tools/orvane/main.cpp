// The command orvane.

#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "command_line/wrong_use.hpp"
#include "commands/commands.hpp"
#include "exit.hpp"
#include "interrupt.hpp"
#include "reason.hpp"

namespace {

constexpr char kProgram[] = "orvane";

// `who` is the program with its command, with which every message begins.
int fail(const std::string& who, const std::string& message, int exitCode = tool::kFailed) {
  const std::string hint = exitCode == tool::kUsage ? " (" + who + " --help shows the usage)" : "";
  std::fprintf(stderr, "%s: %s%s\n", who.c_str(), message.c_str(), hint.c_str());
  return exitCode;
}

int dieOf(const std::string& who, const tool::Interrupted& interrupted) {
  // On a terminal the message replaces the ^C that the terminal shows.
  const char* const begin = isatty(STDERR_FILENO) == 1 ? "\r" : "";
  const std::string during = interrupted.during.empty() ? "" : " " + interrupted.during;
  std::fprintf(stderr, "%s%s: interrupted%s\n", begin, who.c_str(), during.c_str());
  signal(interrupted.signal, SIG_DFL);
  raise(interrupted.signal);
  return 128 + interrupted.signal;  // reached if the parent had blocked the signal
}

int run(const tool::Command& command) {
  const std::string who = std::string(kProgram) + " " + command.options->get_name();
  try {
    command.run();
    tool::requireOutput();
    return tool::kStored;
  } catch (const tool::Failure& failure) {
    return fail(who, failure.what(), failure.code);
  } catch (const tool::Interrupted& interrupted) {
    return dieOf(who, interrupted);
  } catch (const std::exception& e) {
    return fail(who, tool::reasonOf(e));
  }
}

// Explains wrong use of the program or of the command that was parsed.
int explain(const CLI::App& app, const CLI::ParseError& error,
            const std::vector<std::string>& arguments) {
  const auto parsed = app.get_subcommands();
  if (app.remaining_size() > 0) {
    return fail(kProgram, tool::wrongUse(app, error, arguments), tool::kUsage);
  }
  if (parsed.empty()) {
    return fail(kProgram, "a command is required", tool::kUsage);
  }
  return fail(std::string(kProgram) + " " + parsed.front()->get_name(),
              tool::wrongUse(*parsed.front(), error, arguments), tool::kUsage);
}

int parseAndRun(int argc, char** argv) {
  CLI::App app(
      "Send streams of records to a local server, look at its queues, and read what it stored",
      kProgram);
  app.set_version_flag("--version", tool::kVersion);
  app.require_subcommand(1);
  const std::array commands = {tool::addSend(app),  tool::addDemo(app),    tool::addLs(app),
                               tool::addStat(app),  tool::addStreams(app), tool::addCat(app),
                               tool::addClean(app), tool::addDump(app),    tool::addVerify(app),
                               tool::addPrune(app), tool::addFetch(app),   tool::addHelp(app)};
  const std::vector<std::string> arguments(argv + std::min(argc, 1), argv + argc);
  if (arguments.empty()) {
    std::fputs(app.help().c_str(), stdout);
    tool::requireOutput();
    return tool::kUsage;  // so that a script that has lost its command notices
  }
  const bool isOption = arguments.front()[0] == '-';
  const std::string wrong = isOption ? "" : tool::unknownCommand(app, arguments.front());
  if (!wrong.empty()) {
    return fail(kProgram, wrong, tool::kUsage);
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& e) {
    app.exit(e);  // prints the help or the version
    tool::requireOutput();
    return 0;
  } catch (const CLI::ParseError& e) {
    return explain(app, e, arguments);
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
  } catch (const tool::Failure& failure) {
    return fail(kProgram, failure.what(), failure.code);
  } catch (const std::exception& e) {
    return fail(kProgram, tool::reasonOf(e));
  }
}
