#include <algorithm>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "commands/commands.hpp"
#include "exit.hpp"
#include "inspect/measured_totals.hpp"
#include "json.hpp"
#include "queue_list.hpp"
#include "shm/utc.hpp"
#include "transport/totals_requests.hpp"

namespace tool {
namespace {

struct StatOptions {
  std::string name;     // of a queue or a ring; may be empty if there is a socket
  std::string socket;   // of the server whose rings are shown; empty: a queue is
  double interval = 1;  // seconds over which the rates are measured; 0: no rates
  bool json = false;
};

std::string timeText(std::uint64_t nanoseconds) {
  return utcText(static_cast<std::time_t>(nanoseconds / 1000000000));
}

std::string decimal(double number, int decimals) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", decimals, number);
  return text;
}

std::string column(const std::string& text) {
  constexpr std::size_t kWidth = 20;
  return std::string(kWidth - std::min(kWidth, text.size()), ' ') + text;
}

double secondsSince(std::uint64_t then, const Look& look) {
  return rounded(static_cast<double>(look.at - then) / kNanoseconds);
}

std::string serverText(const MeasuredTotals& stat) {
  const PublishedTotals& published = *stat.published;
  const std::string server = std::to_string(published.server());
  if (!stat.served) {
    return "nobody: server " + server +
           " is gone; orvane clean removes what it left, or the next orvaned there";
  }
  return "process " + server + ", worker " + std::to_string(published.worker()) + ", since " +
         timeText(published.totals().madeAt);
}

std::string streamText(const Look& look) {
  if (!look.stream) {
    return "changing just now";
  }
  return look.stream->empty() ? "none" : *look.stream;
}

// Prints nothing for a producer that reads its receipts.
void printUnreadReceipts(const Look& look) {
  if (look.unreadReceipts > 0) {
    std::printf(
        "receipts     %s are not read by the producer%s\n",
        std::to_string(look.unreadReceipts).c_str(),
        look.unreadReceipts >= kMostUnreadReceipts ? ": no batch is taken until some are" : "");
  }
}

void printWhat(const PublishedTotals& published) {
  const Totals& totals = published.totals();
  if (const RingTotals* ring = published.ring()) {
    std::printf("ring         %s, %s bytes\n", published.name().c_str(),
                std::to_string(ring->bytes).c_str());
  } else {
    std::printf("queue        %s, %s messages of %s bytes\n", published.name().c_str(),
                std::to_string(totals.messages).c_str(),
                std::to_string(totals.messageSize).c_str());
  }
}

void printWaits(const Look& look, std::uint64_t ringBytes) {
  const double part = static_cast<double>(look.ring.waiting) / static_cast<double>(ringBytes);
  std::printf("filled       %s bytes, %s %%, when the worker last looked\n",
              std::to_string(look.ring.waiting).c_str(), decimal(100 * part, 1).c_str());
  std::printf("producer     blocked for %s s, slept %s times, as it says\n",
              decimal(static_cast<double>(look.ring.producerBlocked) / kNanoseconds, 3).c_str(),
              std::to_string(look.ring.producerSleeps).c_str());
}

void printText(const MeasuredTotals& stat) {
  const Look& look = stat.look;
  printWhat(*stat.published);
  std::printf("served by    %s\n", serverText(stat).c_str());
  std::printf("open stream  %s\n", streamText(look).c_str());
  std::printf("last batch   %s\n",
              look.lastBatch == 0
                  ? "none yet"
                  : (decimal(secondsSince(look.lastBatch, look), 3) + " s ago").c_str());
  if (const RingTotals* ring = stat.published->ring()) {
    printWaits(look, ring->bytes);
  }
  printUnreadReceipts(look);
  std::puts("");
  const bool rates = stat.seconds > 0;
  std::printf("%-13s%s%s\n", "", column("total").c_str(),
              rates ? column("per second").c_str() : "");
  for (std::size_t i = 0; i < std::size(kTotals); ++i) {
    std::printf("%-13s%s", kTotals[i].text, column(std::to_string(look.totals[i])).c_str());
    std::puts(rates ? column(decimal(stat.rates[i], 1)).c_str() : "");
  }
}

Json jsonOf(const MeasuredTotals& stat, bool rates) {
  Json json;
  for (std::size_t i = 0; i < std::size(kTotals); ++i) {
    json[kTotals[i].json] = rates ? Json(rounded(stat.rates[i])) : Json(stat.look.totals[i]);
  }
  return json;
}

Json jsonOf(const MeasuredTotals& stat) {
  const Totals& totals = stat.published->totals();
  const RingTotals* const ring = stat.published->ring();
  const Look& look = stat.look;
  const bool isOpen = look.stream && !look.stream->empty();
  const bool hasBatch = look.lastBatch != 0;
  const bool hasRates = stat.seconds > 0;
  Json json = {{"queue", stat.published->name()},
               {"messages", ring != nullptr ? Json() : Json(totals.messages.load())},
               {"messageSize", ring != nullptr ? Json() : Json(totals.messageSize.load())},
               {"served", stat.served},
               {"server", stat.published->server()},
               {"worker", stat.published->worker()},
               {"since", timeText(totals.madeAt)},
               {"uptime", secondsSince(totals.madeAtMonotonic, look)},
               {"stream", isOpen ? Json(*look.stream) : Json()},
               {"lastBatchAgo", hasBatch ? Json(secondsSince(look.lastBatch, look)) : Json()},
               {"unreadReceipts", look.unreadReceipts},
               {"totals", jsonOf(stat, false)},
               {"interval", hasRates ? Json(rounded(stat.seconds)) : Json()},
               {"perSecond", hasRates ? jsonOf(stat, true) : Json()}};
  if (ring != nullptr) {
    json["ring"] = {
        {"bytes", ring->bytes.load()},
        {"filled", look.ring.waiting},
        {"producerBlocked", rounded(static_cast<double>(look.ring.producerBlocked) / kNanoseconds)},
        {"producerSleeps", look.ring.producerSleeps}};
  }
  return json;
}

MeasuredTotals statOfQueue(const std::string& queue) {
  const std::vector<std::string> queues = queuesHere();
  if (std::find(queues.begin(), queues.end(), queue) == queues.end()) {
    throw Failure(kFailed, noSuchQueue(queue));
  }
  return MeasuredTotals(std::make_unique<PublishedTotals>(queue));
}

// The rings of a server, or only the one of this name.
std::vector<MeasuredTotals> statsOfRings(const std::string& socket, const std::string& name) {
  std::vector<MeasuredTotals> stats;
  for (ServedRing& ring : ringsServedAt(socket)) {
    if (name.empty() || ring.name == name) {
      stats.emplace_back(std::make_unique<PublishedTotals>(std::move(ring)));
    }
  }
  if (stats.empty() && !name.empty()) {
    throw Failure(kFailed, "no ring " + name + " at " + socket + ": orvane ls --socket " + socket +
                               " lists those that this user may see");
  }
  return stats;
}

void printAll(const std::vector<MeasuredTotals>& stats, const std::string& socket) {
  if (stats.empty()) {
    std::printf("no rings at %s that this user may see\n", socket.c_str());
  }
  for (const MeasuredTotals& stat : stats) {
    std::fputs(&stat == stats.data() ? "" : "\n", stdout);
    printText(stat);
  }
}

// Prints the totals that a server publishes, of one queue or ring or of all rings.
void printStat(const StatOptions& options) {
  std::vector<MeasuredTotals> stats;
  if (options.socket.empty()) {
    stats.push_back(statOfQueue(options.name));
  } else {
    stats = statsOfRings(options.socket, options.name);
  }
  measure(stats, options.interval);
  if (!options.json) {
    printAll(stats, options.socket);
    return;
  }
  for (const MeasuredTotals& stat : stats) {
    printLine(jsonOf(stat));
  }
}

std::string checkInterval(const std::string& text) {
  char* end = nullptr;
  const double seconds = std::strtod(text.c_str(), &end);
  const bool isNumber = !text.empty() && *end == '\0';
  return isNumber && seconds >= 0 && seconds <= 86400 ? "" : "must be seconds, 0 to 86400";
}

// The library's own usage line does not show that the name may be left out with --socket only.
class StatHelp : public CLI::Formatter {
 public:
  std::string make_usage(const CLI::App*, std::string) const override {
    return "Usage: orvane stat [OPTIONS] (NAME | --socket PATH [NAME])\n";
  }
};

}  // namespace

Command addStat(CLI::App& app) {
  CLI::App* stat =
      app.add_subcommand("stat", "Show how much a queue or a ring has carried, and how fast");
  const auto options = std::make_shared<StatOptions>();
  stat->set_version_flag("--version", kVersion);
  stat->formatter(std::make_shared<StatHelp>());
  stat->add_option("NAME", options->name, "The name of a queue, or of a ring at the socket")
      ->type_name("");
  stat->add_option("-s,--socket", options->socket,
                   "Show the rings of the server that leases them at this socket")
      ->type_name("PATH");
  stat->add_option("-i,--interval", options->interval,
                   "Measure the rates over this many seconds; 0 shows no rates")
      ->check(checkInterval)
      ->type_name("SECONDS")
      ->capture_default_str();
  stat->add_flag("-j,--json", options->json, kJson);
  stat->footer(
      std::string("The totals count from the time when the pair or ring was created. stat disturbs "
                  "no stream.\nA user sees the rings of its own leases; root and the server's user "
                  "see all.\n") +
      kExitCodes);
  return {stat, [options] {
            if (options->socket.empty() && options->name.empty()) {
              throw Failure(kUsage, "NAME or --socket PATH is required");
            }
            if (options->socket.empty()) {
              requireQueueName(options->name);
            }
            printStat(*options);
          }};
}

}  // namespace tool
