#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <thread>
#include <vector>

#include "commands/commands.hpp"
#include "exit.hpp"
#include "inspect/json.hpp"
#include "inspect/published_totals.hpp"
#include "queue_list.hpp"
#include "shm/utc.hpp"

namespace tool {
namespace {

struct StatOptions {
  std::string queue;
  double interval = 1;  // seconds over which the rates are measured; 0: no rates
  bool json = false;
};

struct Total {
  const char* text;
  const char* json;
  Totals::Number Totals::*number;
};

constexpr Total kTotals[] = {
    {"batches", "batches", &Totals::batches},
    {"records", "records", &Totals::records},
    {"bytes", "bytes", &Totals::bytes},
    {"segments", "segments", &Totals::segments},
    {"streams", "streams", &Totals::streams},
    {"bad batches", "badBatches", &Totals::badBatches},
    {"error answers", "errorAnswers", &Totals::errorAnswers},
};

struct Look {
  std::array<std::uint64_t, std::size(kTotals)> totals;
  std::uint64_t lastBatch;
  std::uint64_t unreadReceipts;
  std::optional<std::string> stream;  // none while the server changes it
  std::uint64_t at;
};

struct Stat {
  bool served;
  Look look;
  double seconds = 0;  // between two looks; 0 if there was only one
  std::array<double, std::size(kTotals)> rates = {};
};

constexpr double kNanoseconds = 1e9;

Look lookAt(const Totals& totals) {
  Look look = {{}, totals.lastBatch.load(), totals.unreadReceipts.load(), streamOf(totals), 0};
  for (std::size_t i = 0; i < look.totals.size(); ++i) {
    look.totals[i] = (totals.*kTotals[i].number).load(std::memory_order_relaxed);
  }
  look.at = monotonicNow();  // read last, so that the last batch is never later
  return look;
}

// One look is enough if the server is dead: its totals do not change any more.
Stat statOf(const PublishedTotals& published, double interval) {
  Stat stat = {published.isServed(), lookAt(published.totals())};
  if (interval <= 0 || !stat.served) {
    return stat;
  }
  const Look first = stat.look;
  std::this_thread::sleep_for(std::chrono::duration<double>(interval));
  stat.look = lookAt(published.totals());
  stat.seconds = static_cast<double>(stat.look.at - first.at) / kNanoseconds;
  for (std::size_t i = 0; i < stat.rates.size(); ++i) {
    stat.rates[i] = static_cast<double>(stat.look.totals[i] - first.totals[i]) / stat.seconds;
  }
  return stat;
}

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

std::string serverText(const PublishedTotals& published, const Stat& stat) {
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

void printText(const std::string& queue, const PublishedTotals& published, const Stat& stat) {
  const Look& look = stat.look;
  const Totals& totals = published.totals();
  std::printf("queue        %s, %s messages of %s bytes\n", queue.c_str(),
              std::to_string(totals.messages).c_str(), std::to_string(totals.messageSize).c_str());
  std::printf("served by    %s\n", serverText(published, stat).c_str());
  std::printf("open stream  %s\n", streamText(look).c_str());
  std::printf("last batch   %s\n",
              look.lastBatch == 0
                  ? "none yet"
                  : (decimal(secondsSince(look.lastBatch, look), 3) + " s ago").c_str());
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

Json jsonOf(const Stat& stat, bool rates) {
  Json json;
  for (std::size_t i = 0; i < std::size(kTotals); ++i) {
    json[kTotals[i].json] = rates ? Json(rounded(stat.rates[i])) : Json(stat.look.totals[i]);
  }
  return json;
}

void printJson(const std::string& queue, const PublishedTotals& published, const Stat& stat) {
  const Totals& totals = published.totals();
  const Look& look = stat.look;
  const bool isOpen = look.stream && !look.stream->empty();
  const bool hasBatch = look.lastBatch != 0;
  const bool hasRates = stat.seconds > 0;
  printLine({{"name", queue},
             {"messages", totals.messages.load()},
             {"messageSize", totals.messageSize.load()},
             {"served", stat.served},
             {"server", published.server()},
             {"worker", published.worker()},
             {"since", timeText(totals.madeAt)},
             {"uptime", secondsSince(totals.madeAtMonotonic, look)},
             {"openStream", isOpen ? Json(*look.stream) : Json()},
             {"lastBatchAgo", hasBatch ? Json(secondsSince(look.lastBatch, look)) : Json()},
             {"unreadReceipts", look.unreadReceipts},
             {"totals", jsonOf(stat, false)},
             {"interval", hasRates ? Json(rounded(stat.seconds)) : Json()},
             {"perSecond", hasRates ? jsonOf(stat, true) : Json()}});
}

// Prints the totals that a queue's server publishes.
void printStat(const StatOptions& options) {
  const std::string& queue = options.queue;
  const std::vector<std::string> queues = queuesHere();
  if (std::find(queues.begin(), queues.end(), queue) == queues.end()) {
    throw Failure(kFailed, noSuchQueue(queue));
  }
  const PublishedTotals published(queue);
  const Stat stat = statOf(published, options.interval);
  if (options.json) {
    printJson(queue, published, stat);
  } else {
    printText(queue, published, stat);
  }
}

std::string checkInterval(const std::string& text) {
  char* end = nullptr;
  const double seconds = std::strtod(text.c_str(), &end);
  const bool isNumber = !text.empty() && *end == '\0';
  return isNumber && seconds >= 0 && seconds <= 86400 ? "" : "must be seconds, 0 to 86400";
}

}  // namespace

Command addStat(CLI::App& app) {
  CLI::App* stat = app.add_subcommand("stat", "Show how much a queue has carried, and how fast");
  const auto options = std::make_shared<StatOptions>();
  stat->set_version_flag("--version", kVersion);
  stat->add_option("NAME", options->queue, "The queue's name")->required()->type_name("");
  stat->add_option("--interval", options->interval,
                   "Measure the rates over this many seconds; 0 shows no rates")
      ->check(checkInterval)
      ->type_name("SECONDS")
      ->capture_default_str();
  stat->add_flag("--json", options->json, "Print JSON");
  stat->footer(
      std::string("The totals count from the time when the pair was created. stat disturbs no "
                  "stream.\n") +
      kExitCodes);
  return {stat, [options] {
            requireQueueName(options->queue);
            printStat(*options);
          }};
}

}  // namespace tool
