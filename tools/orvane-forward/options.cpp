#include "options.hpp"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cstdint>
#include <iostream>
#include <memory>

#include "command_line/number.hpp"
#include "command_line/wrong_use.hpp"

namespace forward {
namespace {

constexpr std::uint64_t kMostAtOnce = 64;
constexpr std::uint64_t kMostReplicas = 5;
constexpr std::uint64_t kLongestTimeout = 7 * std::uint64_t{86400};

constexpr char kDescription[] =
    "Forwards the streams that orvaned has stored to a NATS cluster with JetStream, when they "
    "have\n"
    "ended. Runs until SIGTERM, SIGINT or SIGHUP.";

constexpr char kFooter[] =
    R"(Each stream of the store is sent in chunks, each under a subject of its own, and its manifest
last. The stream "orvane" of the cluster keeps them. It is made if it is missing, and is not used
if its settings would lose what is stored. What fails is repeated, for ever; a chunk that was sent
before is refused by the cluster, so nothing is stored twice. A stream that was forwarded is marked
in STORE/.forwarded. It stays in the store: orvane prune --forwarded removes it.

orvane streams --nats lists what the cluster has, and orvane fetch reads it.

Log lines go to standard error: TIME KIND CODE forward::FUNCTION: MESSAGE.

Exit codes: 0 stopped by a signal, or all is forwarded with --once; 1 failed, or something is left
at the end of --timeout, or differs with --verify; 2 wrong usage, or the cluster refuses the
credentials, the permissions or the settings.)";

// CLI11's own usage line does not show the required options.
class HelpFormatter : public CLI::Formatter {
 public:
  std::string make_usage(const CLI::App* /*app*/, std::string /*name*/) const override {
    return "\nUsage: orvane-forward --store FOLDER --nats URL[,URL...] [OPTIONS]\n";
  }
};

std::string machineName() {
  std::array<char, 256> name = {};
  return gethostname(name.data(), name.size() - 1) == 0 && name[0] != '\0' ? name.data() : "host";
}

std::string checkHost(const std::string& text) {
  return text.empty() || text.find('/') != std::string::npos || text.size() > 100
             ? "must be a name of at most 100 bytes without a slash"
             : "";
}

int show(const CLI::App& app, const CLI::Success& what) {
  app.exit(what);
  std::cout.flush();
  if (!std::cout) {
    std::cerr << "orvane-forward: cannot write to standard output\n";
    return kFailed;
  }
  return 0;
}

int refuse(const std::string& reason) {
  std::cerr << "orvane-forward: " << reason << " (orvane-forward --help shows the usage)\n";
  return kUsage;
}

void addOptions(CLI::App& app, Options& options, std::uint64_t& timeout) {
  app.add_option("--store", options.store, "The folder in which orvaned stores streams")
      ->type_name("FOLDER")
      ->required();
  tool::addNatsOptions(app, options.nats, "Options")->required();
  app.add_option("--host", options.host,
                 "The name of this machine in the cluster; by default its host name")
      ->type_name("NAME")
      ->check(checkHost);
  app.add_option("--replicas", options.replicas,
                 "Copies that the cluster keeps of each chunk, at least; by default 3\n"
                 "if the stream has to be made, or 1 where there is one server")
      ->type_name("COUNT")
      ->transform(tool::numberFrom(1, kMostReplicas));
  app.add_option("--streams-at-once", options.streamsAtOnce,
                 "Streams that are forwarded at the same time, 1 to " + std::to_string(kMostAtOnce))
      ->type_name("COUNT")
      ->transform(tool::numberFrom(1, kMostAtOnce))
      ->capture_default_str();
  app.add_flag("--once", options.once, "End when everything that has ended is forwarded");
  app.add_option("--timeout", timeout, "With --once: give up after this time, and say what is left")
      ->type_name("SECONDS")
      ->transform(tool::numberFrom(1, kLongestTimeout));
  app.add_flag("--verify", options.verify,
               "First compare all streams of the store with what the cluster has,\n"
               "and store what it lacks, also of those that are marked");
  app.add_option("--metrics", options.metrics,
                 "File for metrics in the text format of Prometheus, written every 10\n"
                 "seconds")
      ->type_name("FILE");
}

}  // namespace

std::optional<int> parseOptions(int argc, const char* const* argv, Options& options) {
  CLI::App app(kDescription, "orvane-forward");
  app.footer(kFooter);
  app.set_version_flag("--version", "orvane-forward " ORVANE_VERSION);
  app.formatter(std::make_shared<HelpFormatter>());
  options.host = machineName();
  std::uint64_t timeout = 0;
  addOptions(app, options, timeout);
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& e) {
    return show(app, e);
  } catch (const CLI::ParseError& e) {
    return refuse(tool::wrongUse(app, e, {argv + std::min(argc, 1), argv + argc}));
  }
  const std::string wrong = tool::wrongUseOf(options.nats);
  if (!wrong.empty()) {
    return refuse(wrong);
  }
  if (timeout > 0 && !options.once) {
    return refuse("--timeout needs --once");
  }
  if (timeout > 0) {
    options.timeout = std::chrono::seconds(timeout);
  }
  return std::nullopt;
}

}  // namespace forward
