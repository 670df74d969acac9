#pragma once

#include <string>
#include <vector>

namespace tool {

// What reads a cluster is a program of its own, in the same folder as this one, because it needs
// the library of a package that not everybody has.
constexpr char kFetchProgram[] = "orvane-fetch";

// Becomes that program, which does the rest of a command. Throws Failure if it is missing.
[[noreturn]] void becomeFetchProgram(const std::string& command,
                                     std::vector<std::string> arguments);

}  // namespace tool
