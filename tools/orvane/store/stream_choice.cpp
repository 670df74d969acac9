#include "store/stream_choice.hpp"

#include <algorithm>
#include <array>
#include <utility>

#include "store/time_text.hpp"

namespace tool {
namespace {

constexpr std::array kEnds = {"closed", "stopped", "cut-off", "broken", kOpen};

std::string checkTime(const std::string& text) {
  return timeIn(text, utcNow()) ? "" : kNoTime;
}

std::string checkEnd(const std::string& text) {
  return std::find(kEnds.begin(), kEnds.end(), text) != kEnds.end()
             ? ""
             : "must be closed, stopped, cut-off, broken or open";
}

}  // namespace

void addStreamChoice(CLI::App& command, StreamChoice& choice) {
  command.add_option("--since", choice.since, "List only streams that began at this time or later")
      ->check(checkTime)
      ->type_name("TIME");
  command.add_option("--until", choice.until, "List only streams that began before this time")
      ->check(checkTime)
      ->type_name("TIME");
  command
      .add_option("-q,--queue", choice.queue,
                  "List only streams of this fixed queue, or of this socket: of the\n"
                  "name with which their ids begin")
      ->type_name("NAME");
  command.add_option("--label", choice.label, "List only streams with this label")
      ->type_name("TEXT");
  command
      .add_option("--end", choice.end,
                  "List only streams that ended as closed, stopped, cut-off or broken,\n"
                  "or that are open")
      ->check(checkEnd)
      ->type_name("END");
  command.add_flag("-j,--json", choice.json, "Print JSON, one object a line");
}

std::vector<std::string> argumentsOf(const StreamChoice& choice) {
  std::vector<std::string> arguments;
  for (const auto& [name, value] :
       {std::pair("--since", choice.since), std::pair("--until", choice.until),
        std::pair("--queue", choice.queue), std::pair("--label", choice.label),
        std::pair("--end", choice.end)}) {
    if (value) {
      arguments.push_back(std::string(name) + "=" + *value);
    }
  }
  if (choice.json) {
    arguments.emplace_back("--json");
  }
  return arguments;
}

void keepChosen(std::vector<StoredStream>& streams, const StreamChoice& choice) {
  const UtcTime now = utcNow();
  const auto since = choice.since ? timeIn(*choice.since, now) : std::nullopt;
  const auto until = choice.until ? timeIn(*choice.until, now) : std::nullopt;
  std::erase_if(streams, [&](const StoredStream& stream) {
    return (since && (!stream.begun || *stream.begun < *since)) ||
           (until && (!stream.begun || *stream.begun >= *until)) ||
           (choice.queue && stream.queue != *choice.queue) ||
           (choice.label && stream.label != *choice.label) ||
           (choice.end && stream.end != *choice.end);
  });
}

}  // namespace tool
