#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace tool {

// How a program reaches a NATS cluster. Several programs have these options.
struct NatsOptions {
  std::string servers;      // URLs, separated by commas
  std::string credentials;  // paths of files; empty: none
  std::string authority;
  std::string certificate;
  std::string key;
};

// Adds --nats, --creds, --tls-ca, --tls-cert and --tls-key, in a group of the help.
CLI::Option* addNatsOptions(CLI::App& app, NatsOptions& options, const std::string& group);

// Returns what is wrong with options that were parsed, or "".
std::string wrongUseOf(const NatsOptions& options);

// Returns the arguments that give another program the same options.
std::vector<std::string> argumentsOf(const NatsOptions& options);

// Returns the URLs in the text of --nats.
std::vector<std::string> serversIn(const std::string& text);

}  // namespace tool
