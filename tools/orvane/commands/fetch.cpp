#include <memory>
#include <string>

#include "commands/commands.hpp"
#include "exit.hpp"
#include "fetch_options.hpp"
#include "fetch_program.hpp"

namespace tool {

Command addFetch(CLI::App& app) {
  CLI::App* command = app.add_subcommand("fetch", "Fetch a stream from a cluster into a folder");
  const auto options = std::make_shared<FetchOptions>();
  command->set_version_flag("--version", kVersion);
  addFetchOptions(*command, *options);
  return {command, [options] {
            const std::string wrong = wrongUseOf(options->nats);
            if (!wrong.empty()) {
              throw Failure(kUsage, wrong);
            }
            becomeFetchProgram("fetch", argumentsOf(*options));
          }};
}

}  // namespace tool
