#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

#include "command_line/nats_options.hpp"

namespace forward {

constexpr int kFailed = 1;
constexpr int kUsage = 2;

struct Options {
  std::string store;
  tool::NatsOptions nats;
  std::string host;  // by default, the machine's name
  int replicas = 0;  // 0: not asked for
  std::size_t streamsAtOnce = 4;
  bool once = false;
  std::optional<std::chrono::seconds> timeout;
  bool verify = false;
  std::string metrics;  // a path; empty: none
};

// Parses the command line. Returns an exit code if the program is to end now, after a help text or
// the explanation of wrong use.
std::optional<int> parseOptions(int argc, const char* const* argv, Options& options);

}  // namespace forward
