#include <signal.h>

#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "command_line/number.hpp"
#include "commands/commands.hpp"
#include "exit.hpp"
#include "inspect/follow_stream.hpp"
#include "inspect/print_stream.hpp"
#include "store/find_stream.hpp"
#include "store/store_folder.hpp"

namespace tool {
namespace {

struct CatOptions {
  std::vector<std::string> streams;
  std::optional<std::string> store;
  bool last = false;
  bool follow = false;
  std::optional<std::string> socket;
  PrintOptions print;
};

// Finds all streams before anything is printed, so that nothing is printed if a name is misspelt.
std::vector<std::string> foldersOf(const CatOptions& options) {
  if (options.last) {
    if (options.streams.size() > 1) {
      throw Failure(kUsage, "--last is for one STREAM, or for none");
    }
    return {findNewestStream(storeNamed(options.store),
                             options.streams.empty() ? "" : options.streams.front())};
  }
  if (options.streams.empty()) {
    throw Failure(kUsage, "STREAM or --last is required");
  }
  std::vector<std::string> folders;
  for (const std::string& stream : options.streams) {
    folders.push_back(findStream(options.store, stream));
  }
  return folders;
}

void warn(const std::string& message) {
  std::fprintf(stderr, "orvane cat: %s\n", message.c_str());
}

// Prints the streams one after another, up to the first one that may not be printed.
void printStreamsData(const CatOptions& options) {
  if (options.follow && options.print.segment) {
    throw Failure(kUsage, "--follow and --segment exclude each other");
  }
  const std::vector<std::string> folders = foldersOf(options);
  signal(SIGPIPE, SIG_DFL);  // a reader of the output that ends has seen enough: print no message
  for (const std::string& folder : folders) {
    if (options.follow) {
      followStream(folder, options.print, options.socket, warn);
    } else {
      printStream(folder, options.print, warn);
    }
  }
}

}  // namespace

Command addCat(CLI::App& app) {
  CLI::App* cat = app.add_subcommand("cat", "Print the data of stored streams");
  const auto options = std::make_shared<CatOptions>();
  cat->set_version_flag("--version", kVersion);
  cat->add_option("STREAM", options->streams,
                  "The streams: their ids, as orvane streams lists them, parts of these\n"
                  "that no other stream has, or paths of their folders")
      ->type_name("");
  cat->add_option("--store", options->store, kStoreHelp)->type_name("STORE");
  cat->add_flag("--last", options->last,
                "Print the newest stream or, with a part of ids as STREAM, the newest\n"
                "one that has it");
  cat->add_option("--segment", options->print.segment, "Print only the segment with this number")
      ->transform(numberFrom(0, UINT64_MAX))
      ->type_name("NUMBER");
  cat->add_flag("--follow", options->follow,
                "Print an open stream while it is stored, and end with it");
  cat->add_option("-s,--socket", options->socket,
                  "With --follow: the socket of a server that leases rings; by default,\n"
                  "/run/orvaned/NAME/socket, where NAME is the first part of the id")
      ->type_name("PATH");
  cat->add_flag("--force", options->print.force,
                "Print also what is damaged or not whole; standard error names it");
  cat->footer(
      std::string(
          "The segments are printed in order, each one after it was compared with its "
          "checksum.\n"
          "A stream that is not whole is not printed, and nothing after what is damaged.\n") +
      kExitCodes);
  return {cat, [options] { printStreamsData(*options); }};
}

}  // namespace tool
