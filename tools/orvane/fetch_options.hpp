#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <string>
#include <vector>

#include "command_line/nats_options.hpp"

namespace tool {

struct FetchOptions {
  NatsOptions nats;
  std::string stream;
  std::string folder;
  bool follow = false;
  std::uint32_t timeout = 30;
  bool json = false;
};

// Adds the options of `orvane fetch`, and the help after them.
void addFetchOptions(CLI::App& command, FetchOptions& options);

// Returns the arguments that give another program the same options.
std::vector<std::string> argumentsOf(const FetchOptions& options);

}  // namespace tool
