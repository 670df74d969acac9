#pragma once

#include <CLI/CLI.hpp>
#include <functional>

namespace tool {

// One command: its options and help on the command line, and the function that runs it after they
// are parsed. run() throws Failure, and Interrupted after a signal.
struct Command {
  const CLI::App* options;
  std::function<void()> run;
};

Command addSend(CLI::App& app);   // stores files as streams of a running server
Command addDemo(CLI::App& app);   // sends a file through a server of its own, and compares
Command addLs(CLI::App& app);     // lists the queues of this machine
Command addStat(CLI::App& app);   // shows how much a queue has carried
Command addClean(CLI::App& app);  // removes the files that dead servers left
Command addDump(CLI::App& app);   // shows what a capture or a stored stream holds

constexpr char kVersion[] = "orvane " ORVANE_VERSION;
constexpr char kExitCodes[] = "Exit codes: 0 done, 1 failed, 2 wrong use of the command.";

}  // namespace tool
