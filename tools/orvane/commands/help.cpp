#include <cstdio>
#include <memory>
#include <string>

#include "command_line/wrong_use.hpp"
#include "commands/commands.hpp"
#include "exit.hpp"

namespace tool {
namespace {

// Prints the help of a command or, without a name, the help that lists all commands.
void printHelp(const CLI::App& app, const std::string& name) {
  const std::string wrong = name.empty() ? "" : unknownCommand(app, name);
  if (!wrong.empty()) {
    throw Failure(kUsage, wrong);
  }
  // app.help() would be the help of the command that was parsed, which is `help`.
  const std::string text = name.empty() ? app.get_formatter()->make_help(&app, app.get_name(),
                                                                         CLI::AppFormatMode::Normal)
                                        : app.get_subcommand(name)->help(app.get_name());
  std::fputs(text.c_str(), stdout);
}

}  // namespace

Command addHelp(CLI::App& app) {
  CLI::App* help = app.add_subcommand("help", "Show the help of a command, or list all commands");
  const auto name = std::make_shared<std::string>();
  help->set_version_flag("--version", kVersion);
  help->add_option("COMMAND", *name, "The command. Without COMMAND: list all commands")
      ->type_name("");
  help->footer(kExitCodes);
  return {help, [&app, name] { printHelp(app, *name); }};
}

}  // namespace tool
