#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace tool {

// Explains why CLI11 refused the arguments of a program or of one of its commands. To be called
// after parse() has thrown `error`; `arguments` are those of main(), without the program. CLI11's
// own texts are not used, only those of the checks that belong to an option. An unknown option is
// named first, whatever else is wrong.
std::string wrongUse(const CLI::App& command, const CLI::ParseError& error,
                     const std::vector<std::string>& arguments);

// Explains that a program has no such command, or returns "" if it has it.
std::string unknownCommand(const CLI::App& program, const std::string& name);

}  // namespace tool
