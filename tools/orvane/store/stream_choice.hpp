#pragma once

#include <CLI/CLI.hpp>
#include <optional>
#include <string>
#include <vector>

#include "store/stored_stream.hpp"

namespace tool {

// Which streams are listed, and how.
struct StreamChoice {
  std::optional<std::string> since;
  std::optional<std::string> until;
  std::optional<std::string> queue;
  std::optional<std::string> label;
  std::optional<std::string> end;
  bool json = false;
};

// Adds the options of a choice.
void addStreamChoice(CLI::App& command, StreamChoice& choice);

// Returns the arguments that give another program the same choice.
std::vector<std::string> argumentsOf(const StreamChoice& choice);

// Removes the streams that the user did not ask for. A stream with an unknown begin is in no time.
void keepChosen(std::vector<StoredStream>& streams, const StreamChoice& choice);

}  // namespace tool
