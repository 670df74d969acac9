#include <pwd.h>
#include <sys/stat.h>
#include <memory>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <orvane/orvane.hpp>
#include <string>
#include <vector>

#include "commands/commands.hpp"
#include "exit.hpp"
#include "inspect/json.hpp"
#include "inspect/published_totals.hpp"
#include "queue_list.hpp"
#include "shm/shm_names.hpp"
#include "units.hpp"

namespace tool {
namespace {

// The facts that only the server's totals show.
struct Served {
  std::uint64_t messages;
  std::uint64_t messageSize;
  std::uint64_t server;  // its process; 0 if it is dead
};

struct Facts {
  std::string name;
  std::uint64_t bytes;
  std::string mode;
  std::string owner;
  std::optional<Served> served;
};

std::string userName(uid_t user) {
  const passwd* entry = getpwuid(user);
  return entry != nullptr ? entry->pw_name : std::to_string(user);
}

std::optional<Served> servedFacts(const std::string& queue) {
  try {
    const PublishedTotals published(queue);
    const Totals& totals = published.totals();
    return Served{totals.messages, totals.messageSize,
                  published.isServed() ? published.server() : 0};
  } catch (const Failure&) {
    return std::nullopt;
  }
}

// Returns nothing if the queue was removed meanwhile.
std::optional<Facts> factsOf(const std::string& queue) {
  struct stat send = {};
  struct stat response = {};
  const std::string responseQueue = orvane::getMessageQueueResponseName(queue);
  if (lstat((kShmFolder + queue).c_str(), &send) != 0 ||
      lstat((kShmFolder + responseQueue).c_str(), &response) != 0 || !S_ISREG(send.st_mode)) {
    return std::nullopt;
  }
  char mode[16];
  std::snprintf(mode, sizeof mode, "%04o", send.st_mode & 07777U);
  return Facts{queue, static_cast<std::uint64_t>(send.st_size + response.st_size), mode,
               userName(send.st_uid), servedFacts(queue)};
}

using Row = std::array<std::string, 6>;

Row rowOf(const Facts& facts) {
  Row row = {facts.name, bytesText(static_cast<double>(facts.bytes)), "-", facts.mode, facts.owner,
             "-"};
  if (const auto& served = facts.served) {
    row[2] = std::to_string(served->messages) + " x " + std::to_string(served->messageSize);
    row[5] = served->server != 0 ? std::to_string(served->server) : "nobody";
  }
  return row;
}

void printTable(const std::vector<Facts>& queues) {
  std::vector<Row> rows = {{"NAME", "SIZE", "MESSAGES", "MODE", "OWNER", "SERVER"}};
  for (const Facts& facts : queues) {
    rows.push_back(rowOf(facts));
  }
  std::array<std::size_t, 6> widths = {};
  for (const Row& row : rows) {
    for (std::size_t i = 0; i < row.size(); ++i) {
      widths[i] = std::max(widths[i], row[i].size());
    }
  }
  for (Row& row : rows) {
    for (std::size_t i = 0; i + 1 < row.size(); ++i) {
      std::printf("%-*s  ", static_cast<int>(widths[i]), row[i].c_str());
    }
    std::puts(row.back().c_str());
  }
}

Json jsonOf(const Facts& facts) {
  const bool isKnown = facts.served.has_value();
  const bool isServed = isKnown && facts.served->server != 0;
  return {{"name", facts.name},
          {"bytes", facts.bytes},
          {"mode", facts.mode},
          {"owner", facts.owner},
          {"messages", isKnown ? Json(facts.served->messages) : Json()},
          {"messageSize", isKnown ? Json(facts.served->messageSize) : Json()},
          {"served", isKnown ? Json(isServed) : Json()},
          {"server", isServed ? Json(facts.served->server) : Json()}};
}

void printJson(const std::vector<Facts>& queues) {
  Json list = Json::array();
  for (const Facts& facts : queues) {
    list.push_back(jsonOf(facts));
  }
  printLine(list);
}

// Prints the queues of this machine, as a table or as JSON. A fact that this user may not read is
// "-" or null.
void listQueues(bool json) {
  std::vector<Facts> queues;
  for (const std::string& name : queuesHere()) {
    if (auto facts = factsOf(name)) {
      queues.push_back(std::move(*facts));
    }
  }
  if (json) {
    printJson(queues);
  } else if (queues.empty()) {
    std::puts("no queues on this machine: orvaned --queue NAME --store DIR serves one");
  } else {
    printTable(queues);
  }
}

}  // namespace

Command addLs(CLI::App& app) {
  CLI::App* ls = app.add_subcommand("ls", "List the queues of this machine");
  const auto json = std::make_shared<bool>(false);
  ls->set_version_flag("--version", kVersion);
  ls->add_flag("--json", *json, "Print JSON");
  ls->footer(
      std::string("SERVER is the process that serves the queue, or nobody if it is dead.\n"
                  "- means that this user may not read the value, or that orvaned did not publish "
                  "it.\n") +
      kExitCodes);
  return {ls, [json] { listQueues(*json); }};
}

}  // namespace tool
