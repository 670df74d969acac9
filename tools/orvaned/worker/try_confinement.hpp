#pragma once

#include <string>
#include <vector>

#include "confinement_settings.hpp"

namespace orvaned {

// A line for the log at the server's start.
struct ConfinementLine {
  bool isWarning;
  std::string text;
};

// Tries dropRights() and restrictCalls() in a child process, and returns lines about what is in
// force; a part that the kernel does not have is a warning. Throws std::runtime_error when the
// system refuses a part; the text names the option that leaves it out.
std::vector<ConfinementLine> tryConfinement(const Confinement& confinement);

}  // namespace orvaned
