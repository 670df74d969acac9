#include "command_line/wrong_use.hpp"

#include <algorithm>

#include "command_line/suggestion.hpp"

namespace tool {
namespace {

bool isOption(const std::string& argument) {
  return argument.size() > 1 && argument.front() == '-';
}

std::string nameIn(const std::string& argument) {
  return argument.substr(0, argument.find('='));
}

std::vector<std::string> longNames(const CLI::App& command) {
  std::vector<std::string> names;
  for (const CLI::Option* option : command.get_options()) {
    for (const std::string& name : option->get_lnames()) {
      names.push_back("--" + name);
    }
  }
  return names;
}

// What the command has no option or no place for, or "".
std::string unknownIn(const CLI::App& command) {
  const std::vector<std::string> unknown = command.remaining();
  const auto option = std::find_if(unknown.begin(), unknown.end(), isOption);
  if (option != unknown.end()) {
    const std::string name = nameIn(*option);
    const bool isLong = name.starts_with("--");
    return "unknown option " + name + (isLong ? suggestionFor(name, longNames(command)) : "");
  }
  return unknown.empty() ? "" : "unexpected argument '" + unknown.front() + "'";
}

std::string repeatedIn(const CLI::App& command) {
  for (const CLI::Option* option : command.get_options()) {
    if (option->count() > 1 && option->get_items_expected_max() == 1) {
      return option->get_name() + " is given more than once";
    }
  }
  return "";
}

std::string flagWithValueIn(const CLI::App& command, const std::vector<std::string>& arguments) {
  for (const std::string& argument : arguments) {
    const std::string name = nameIn(argument);
    const CLI::Option* option = command.get_option_no_throw(name);
    if (name != argument && option != nullptr && option->get_items_expected_max() == 0) {
      return name + " takes no value";
    }
  }
  return "";
}

std::string missingIn(const CLI::App& command) {
  for (const CLI::Option* option : command.get_options()) {
    if (option->get_required() && option->count() == 0) {
      return option->get_name() + " is required";
    }
  }
  return "";
}

}  // namespace

std::string wrongUse(const CLI::App& command, const CLI::ParseError& error,
                     const std::vector<std::string>& arguments) {
  std::string unknown = unknownIn(command);
  if (!unknown.empty()) {
    return unknown;
  }
  for (const std::string& reason : {repeatedIn(command), flagWithValueIn(command, arguments)}) {
    if (!reason.empty()) {
      return reason;
    }
  }
  // The name of the option and the text of its check.
  if (dynamic_cast<const CLI::ValidationError*>(&error) != nullptr) {
    return error.what();
  }
  // CLI11 finds this while it reads the arguments, so it can only be the last one.
  if (dynamic_cast<const CLI::ArgumentMismatch*>(&error) != nullptr && !arguments.empty()) {
    return nameIn(arguments.back()) + " needs a value";
  }
  const std::string missing = missingIn(command);
  return missing.empty() ? "the arguments are not understood" : missing;
}

std::string unknownCommand(const CLI::App& program, const std::string& name) {
  std::vector<std::string> names;
  for (const CLI::App* command : program.get_subcommands([](const CLI::App*) { return true; })) {
    if (command->get_name() == name) {
      return "";
    }
    names.push_back(command->get_name());
  }
  return "no command '" + name + "'" + suggestionFor(name, names);
}

}  // namespace tool
