// orvane-fetch, which reads a cluster: the commands `orvane fetch` and `orvane streams --nats`.

#include <signal.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "command_line/wrong_use.hpp"
#include "connection.hpp"
#include "exit.hpp"
#include "fetch/fetch_stream.hpp"
#include "fetch/list_streams.hpp"
#include "fetch_options.hpp"
#include "store/stream_choice.hpp"

namespace {

constexpr char kProgram[] = "orvane-fetch";

int fail(const std::string& who, const std::string& message, int exitCode = tool::kFailed) {
  const std::string hint = exitCode == tool::kUsage ? " (" + who + " --help shows the usage)" : "";
  std::fprintf(stderr, "%s: %s%s\n", who.c_str(), message.c_str(), hint.c_str());
  return exitCode;
}

// `who` is the command of orvane that a user knows.
template <typename Work>
int run(const std::string& who, const Work& work) {
  const forward::NatsLibrary library;
  try {
    work();
    std::cout.flush();
    tool::requireOutput();
    return 0;
  } catch (const tool::Failure& failure) {
    return fail(who, failure.what(), failure.code);
  } catch (const std::exception& e) {
    return fail(who, e.what());
  }
}

int parseAndRun(int argc, char** argv) {
  CLI::App app("Read streams that orvane-forward has forwarded to a cluster", kProgram);
  app.set_version_flag("--version", std::string(kProgram) + " " ORVANE_VERSION);
  app.require_subcommand(1);
  tool::FetchOptions fetchOptions;
  CLI::App* const fetch =
      app.add_subcommand("fetch", "Fetch a stream from a cluster into a folder");
  tool::addFetchOptions(*fetch, fetchOptions);
  tool::NatsOptions nats;
  tool::StreamChoice choice;
  CLI::App* const streams = app.add_subcommand("streams", "List the streams of a cluster");
  tool::addNatsOptions(*streams, nats, "Options")->required();
  tool::addStreamChoice(*streams, choice);
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& e) {
    app.exit(e);
    tool::requireOutput();
    return 0;
  } catch (const CLI::ParseError& e) {
    const auto parsed = app.get_subcommands();
    if (parsed.empty()) {
      return fail(kProgram, "a command is required, fetch or streams", tool::kUsage);
    }
    return fail(std::string(kProgram) + " " + parsed.front()->get_name(),
                tool::wrongUse(*parsed.front(), e, {argv + std::min(argc, 1), argv + argc}),
                tool::kUsage);
  }
  if (fetch->parsed()) {
    return run("orvane fetch", [&] { forward::fetchStream(fetchOptions); });
  }
  return run("orvane streams", [&] { forward::listStreams(nats, choice); });
}

}  // namespace

int main(int argc, char** argv) {
  tool::occupyStandardFiles();
  signal(SIGPIPE, SIG_IGN);
  try {
    return parseAndRun(argc, argv);
  } catch (const std::exception& e) {
    return fail(kProgram, e.what());
  }
}
