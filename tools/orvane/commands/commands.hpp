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

Command addSend(CLI::App& app);     // stores files as streams of a running server
Command addDemo(CLI::App& app);     // sends a file through a server of its own, and compares
Command addLs(CLI::App& app);       // lists the queues of this machine
Command addStat(CLI::App& app);     // shows how much a queue has carried
Command addStreams(CLI::App& app);  // lists the streams of a store or a cluster
Command addCat(CLI::App& app);      // prints the data of stored streams
Command addClean(CLI::App& app);    // removes the files that dead servers left
Command addDump(CLI::App& app);     // shows what a capture or a stored stream holds
Command addFetch(CLI::App& app);    // fetches a stream from a cluster
Command addVerify(CLI::App& app);   // checks stored streams against their manifests
Command addPrune(CLI::App& app);    // removes the oldest streams of a store
Command addHelp(CLI::App& app);     // shows the help of a command

constexpr char kVersion[] = "orvane " ORVANE_VERSION;
// Options that several commands have mean the same in each, as do their one-letter forms:
//   -i --interval, -j --json, -n --dry-run, -q --queue, -s --socket, -t --timeout, -w --wait
constexpr char kJson[] = "Print JSON, one object a line";
constexpr char kQuiet[] = "Show no progress";

constexpr char kSizes[] =
    "A SIZE is a number of bytes with or without a unit. K or KiB is 1024 bytes, M or MiB is 1024\n"
    "of these, and so on; kB, MB and so on are powers of 1000, also in what orvane prints.\n";
constexpr char kExitCodes[] = "Exit codes: 0 done, 1 failed, 2 wrong use of the command.";

}  // namespace tool
