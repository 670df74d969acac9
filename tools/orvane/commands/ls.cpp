#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <orvane/orvane.hpp>
#include <string>
#include <utility>
#include <vector>

#include "commands/commands.hpp"
#include "exit.hpp"
#include "inspect/published_totals.hpp"
#include "json.hpp"
#include "queue_list.hpp"
#include "shm/shm_names.hpp"
#include "transport/totals_requests.hpp"
#include "units.hpp"
#include "user_name.hpp"

namespace tool {
namespace {

// The facts that only the server's totals show.
struct Served {
  bool isRing;
  std::uint64_t messages;
  std::uint64_t messageSize;
  std::uint64_t server;  // its process; 0 if it is dead
};

struct Facts {
  std::string name;
  std::uint64_t bytes;
  std::string mode;  // of a queue
  std::string owner;
  std::optional<Served> served;
};

Served servedFacts(const PublishedTotals& published) {
  const Totals& totals = published.totals();
  return {published.ring() != nullptr, totals.messages, totals.messageSize,
          published.isServed() ? published.server() : 0};
}

std::optional<Served> servedFacts(const std::string& queue) {
  try {
    return servedFacts(PublishedTotals(queue));
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

Facts factsOf(ServedRing ring) {
  const PublishedTotals published(std::move(ring));
  const Totals& totals = published.totals();
  return {published.name(), published.ring() != nullptr ? published.ring()->bytes.load() : 0, "",
          userName(static_cast<uid_t>(totals.userPlusOne - 1)), servedFacts(published)};
}

using Row = std::array<std::string, 6>;

Row rowOf(const Facts& facts) {
  Row row = {facts.name,  bytesText(static_cast<double>(facts.bytes)),
             "-",         facts.mode.empty() ? "-" : facts.mode,
             facts.owner, "-"};
  if (const auto& served = facts.served) {
    row[2] = served->isRing
                 ? "ring"
                 : std::to_string(served->messages) + " x " + std::to_string(served->messageSize);
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
  const bool isQueue = isKnown && !facts.served->isRing;
  return {{"queue", facts.name},
          {"bytes", facts.bytes},
          {"mode", facts.mode.empty() ? Json() : Json(facts.mode)},
          {"owner", facts.owner},
          {"messages", isQueue ? Json(facts.served->messages) : Json()},
          {"messageSize", isQueue ? Json(facts.served->messageSize) : Json()},
          {"served", isKnown ? Json(isServed) : Json()},
          {"server", isServed ? Json(facts.served->server) : Json()}};
}

std::vector<Facts> queues() {
  std::vector<Facts> found;
  for (const std::string& name : queuesHere()) {
    if (auto facts = factsOf(name)) {
      found.push_back(std::move(*facts));
    }
  }
  return found;
}

std::vector<Facts> ringsAt(const std::string& socket) {
  std::vector<Facts> found;
  for (ServedRing& ring : ringsServedAt(socket)) {
    found.push_back(factsOf(std::move(ring)));
  }
  return found;
}

// Prints the queues of this machine or the rings of a server, as a table or as JSON. A fact that
// this user may not read is "-" or null.
void list(const std::string& socket, bool json) {
  const std::vector<Facts> found = socket.empty() ? queues() : ringsAt(socket);
  if (json) {
    for (const Facts& facts : found) {
      printLine(jsonOf(facts));
    }
  } else if (!found.empty()) {
    printTable(found);
  } else if (socket.empty()) {
    std::puts("no queues on this machine: orvaned --queue NAME --store DIR serves one");
  } else {
    std::printf("no rings at %s that this user may see\n", socket.c_str());
  }
}

}  // namespace

Command addLs(CLI::App& app) {
  CLI::App* ls =
      app.add_subcommand("ls", "List the queues of this machine, or the rings of a server");
  const auto json = std::make_shared<bool>(false);
  ls->set_version_flag("--version", kVersion);
  const auto socket = std::make_shared<std::string>();
  ls->add_option("-s,--socket", *socket,
                 "List the rings of the server that leases them at this socket")
      ->type_name("PATH");
  ls->add_flag("-j,--json", *json, kJson);
  ls->footer(std::string(
                 "SERVER is the process that serves the queue, or nobody if it is dead.\n"
                 "- means that this user may not read the value, or that orvaned did not publish "
                 "it.\n"
                 "A user sees the rings of its own leases; root and the server's user see all.\n") +
             kExitCodes);
  return {ls, [socket, json] { list(*socket, *json); }};
}

}  // namespace tool
