#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "command_line/nats_options.hpp"
#include "commands/commands.hpp"
#include "exit.hpp"
#include "fetch_program.hpp"
#include "store/store_folder.hpp"
#include "store/stored_stream.hpp"
#include "store/stream_choice.hpp"
#include "store/stream_list.hpp"
#include "store/time_text.hpp"

namespace tool {
namespace {

struct StreamsOptions {
  std::optional<std::string> store;
  StreamChoice choice;
  NatsOptions nats;
};

// Prints the streams of a store, the newest last.
void printStreams(const StreamsOptions& options) {
  const std::string store = storeNamed(options.store);
  std::vector<StoredStream> streams = streamsIn(store);
  const bool isEmpty = streams.empty();
  keepChosen(streams, options.choice);
  if (options.choice.json) {
    printLines(streams);
  } else if (streams.empty()) {
    std::printf("no stream is in the store %s%s\n", store.c_str(),
                isEmpty ? "" : " that the options ask for");
  } else {
    printTable(streams);
  }
}

void listStreams(const StreamsOptions& options) {
  const std::string wrong = options.store && !options.nats.servers.empty()
                                ? "STORE and --nats exclude each other"
                                : wrongUseOf(options.nats);
  if (!wrong.empty()) {
    throw Failure(kUsage, wrong);
  }
  if (options.nats.servers.empty()) {
    return printStreams(options);
  }
  std::vector<std::string> arguments = argumentsOf(options.choice);
  for (std::string& one : argumentsOf(options.nats)) {
    arguments.push_back(std::move(one));
  }
  becomeFetchProgram("streams", std::move(arguments));
}

}  // namespace

Command addStreams(CLI::App& app) {
  CLI::App* streams = app.add_subcommand(
      "streams", "List the streams of a store, or of a cluster, the newest last");
  const auto options = std::make_shared<StreamsOptions>();
  streams->set_version_flag("--version", kVersion);
  streams->add_option("STORE", options->store, kStoreHelp)->type_name("");
  addStreamChoice(*streams, options->choice);
  addNatsOptions(*streams, options->nats, "A cluster in place of a store");
  streams->footer(
      std::string(kTimes) +
      "An open stream has the bytes and segments that are stored so far. - is what is not known.\n"
      "STREAM is the id, which every command takes, or a part of it that no other stream has.\n"
      "In a cluster it is HOST/QUEUE/ID, as orvane fetch takes it.\n" +
      kExitCodes);
  return {streams, [options] { listStreams(*options); }};
}

}  // namespace tool
