#include "fetch_options.hpp"

#include "command_line/number.hpp"

namespace tool {
namespace {

constexpr std::uint64_t kLongestTimeout = 86400;

std::string checkStream(const std::string& text) {
  const std::size_t first = text.find('/');
  const std::size_t second = first == std::string::npos ? first : text.find('/', first + 1);
  const bool isStream = first != 0 && second != std::string::npos && second + 1 < text.size() &&
                        text.find('/', second + 1) == std::string::npos;
  return isStream ? "" : "must be HOST/QUEUE/STREAM, as orvane streams --nats lists it";
}

}  // namespace

void addFetchOptions(CLI::App& command, FetchOptions& options) {
  command
      .add_option("STREAM", options.stream,
                  "The stream: HOST/QUEUE/STREAM, as orvane streams\n"
                  "--nats lists it")
      ->check(checkStream)
      ->required()
      ->type_name("");
  command
      .add_option("DIR", options.folder, "The folder for its files, which is made if it is missing")
      ->required()
      ->type_name("");
  addNatsOptions(command, options.nats, "Options")->required();
  command.add_flag("--follow", options.follow,
                   "Fetch each segment as soon as it is there, and wait for the end of\n"
                   "the stream");
  command
      .add_option("-t,--timeout", options.timeout,
                  "Give up when the cluster has not answered for so long")
      ->type_name("SECONDS")
      ->transform(numberFrom(1, kLongestTimeout))
      ->capture_default_str();
  command.add_flag("-j,--json", options.json, "Print JSON, one object a line");
  command.footer(
      "DIR then is as the stream's folder in its store, so orvane dump, cat and verify read it.\n"
      "Each chunk is compared with its checksum, and each file with the manifest. This command is "
      "in\n"
      "the package orvane-forward.\n"
      "Exit codes: 0 done, 1 failed, 2 wrong use of the command.");
}

std::vector<std::string> argumentsOf(const FetchOptions& options) {
  std::vector<std::string> arguments = argumentsOf(options.nats);
  arguments.push_back("--timeout=" + std::to_string(options.timeout));
  if (options.follow) {
    arguments.emplace_back("--follow");
  }
  if (options.json) {
    arguments.emplace_back("--json");
  }
  arguments.insert(arguments.end(), {"--", options.stream, options.folder});
  return arguments;
}

}  // namespace tool
