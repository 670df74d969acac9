#include <algorithm>
#include <array>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "commands/commands.hpp"
#include "inspect/json.hpp"
#include "store/store_folder.hpp"
#include "store/stored_stream.hpp"
#include "store/time_text.hpp"
#include "units.hpp"
#include "user_name.hpp"

namespace tool {
namespace {

constexpr std::array kEnds = {"closed", "stopped", "cut-off", "broken", kOpen};

struct StreamsOptions {
  std::optional<std::string> store;
  std::optional<std::string> since;
  std::optional<std::string> until;
  std::optional<std::string> queue;
  std::optional<std::string> label;
  std::optional<std::string> end;
  bool json = false;
};

// Removes the streams that the user did not ask for. A stream with an unknown begin is in no time.
void keepWanted(std::vector<StoredStream>& streams, const StreamsOptions& options) {
  const UtcTime now = utcNow();
  const auto since = options.since ? timeIn(*options.since, now) : std::nullopt;
  const auto until = options.until ? timeIn(*options.until, now) : std::nullopt;
  std::erase_if(streams, [&](const StoredStream& stream) {
    return (since && (!stream.begun || *stream.begun < *since)) ||
           (until && (!stream.begun || *stream.begun >= *until)) ||
           (options.queue && stream.queue != *options.queue) ||
           (options.label && stream.label != *options.label) ||
           (options.end && stream.end != *options.end);
  });
}

// Milliseconds are left out: the list is for people.
std::string beginText(const StoredStream& stream) {
  return stream.begun ? utcText(std::chrono::system_clock::to_time_t(*stream.begun)) : "-";
}

std::string secondsText(const StoredStream& stream) {
  char text[64] = "-";
  if (stream.seconds) {
    std::snprintf(text, sizeof text, "%.3f s", *stream.seconds);
  }
  return text;
}

std::string numberText(const std::optional<std::uint64_t>& number) {
  return number ? std::to_string(*number) : "-";
}

// The last column is the longest one, and differs in length.
constexpr char kLine[] = "%-20s  %11s  %7s  %8s  %8s  %-7s  %-8s  %s\n";

void printRow(const StoredStream& stream) {
  const auto bytes = stream.bytes ? bytesText(static_cast<double>(*stream.bytes)) : "-";
  std::printf(kLine, beginText(stream).c_str(), secondsText(stream).c_str(), bytes.c_str(),
              numberText(stream.records).c_str(), numberText(stream.segments).c_str(),
              stream.end.empty() ? "-" : stream.end.c_str(),
              stream.uid ? userName(*stream.uid).c_str() : "-", stream.id.c_str());
}

template <typename Value>
Json jsonOrNull(const std::optional<Value>& value) {
  return value ? Json(*value) : Json();
}

Json textOrNull(const std::string& text) {
  return text.empty() ? Json() : Json(text);
}

Json jsonOf(const StoredStream& stream) {
  return {{"stream", stream.id},
          {"queue", textOrNull(stream.queue)},
          {"label", textOrNull(stream.label)},
          {"uid", jsonOrNull(stream.uid)},
          {"pid", jsonOrNull(stream.pid)},
          {"begun", stream.begun ? Json(utcText(*stream.begun)) : Json()},
          {"seconds", stream.seconds ? Json(rounded(*stream.seconds)) : Json()},
          {"records", jsonOrNull(stream.records)},
          {"bytes", jsonOrNull(stream.bytes)},
          {"segments", jsonOrNull(stream.segments)},
          {"end", textOrNull(stream.end)}};
}

// Prints the streams of a store, the newest last. What is not known is "-" or null.
void printStreams(const StreamsOptions& options) {
  const std::string store = storeNamed(options.store);
  std::vector<StoredStream> streams = streamsIn(store);
  const bool isEmpty = streams.empty();
  keepWanted(streams, options);
  if (options.json) {
    for (const StoredStream& stream : streams) {
      printLine(jsonOf(stream));
    }
  } else if (streams.empty()) {
    std::printf("no stream is in the store %s%s\n", store.c_str(),
                isEmpty ? "" : " that the options ask for");
  } else {
    std::printf(kLine, "BEGUN", "TIME", "SIZE", "RECORDS", "SEGMENTS", "END", "USER", "STREAM");
    for (const StoredStream& stream : streams) {
      printRow(stream);
    }
  }
}

std::string checkTime(const std::string& text) {
  return timeIn(text, utcNow()) ? "" : kNoTime;
}

std::string checkEnd(const std::string& text) {
  return std::find(kEnds.begin(), kEnds.end(), text) != kEnds.end()
             ? ""
             : "must be closed, stopped, cut-off, broken or open";
}

}  // namespace

Command addStreams(CLI::App& app) {
  CLI::App* streams = app.add_subcommand("streams", "List the streams of a store, the newest last");
  const auto options = std::make_shared<StreamsOptions>();
  streams->set_version_flag("--version", kVersion);
  streams->add_option("STORE", options->store, kStoreHelp)->type_name("");
  streams
      ->add_option("--since", options->since, "List only streams that began at this time or later")
      ->check(checkTime)
      ->type_name("TIME");
  streams->add_option("--until", options->until, "List only streams that began before this time")
      ->check(checkTime)
      ->type_name("TIME");
  streams
      ->add_option("-q,--queue", options->queue,
                   "List only streams of this fixed queue, or of this socket: of the\n"
                   "name with which their ids begin")
      ->type_name("NAME");
  streams->add_option("--label", options->label, "List only streams with this label")
      ->type_name("TEXT");
  streams
      ->add_option("--end", options->end,
                   "List only streams that ended as closed, stopped, cut-off or broken,\n"
                   "or that are open")
      ->check(checkEnd)
      ->type_name("END");
  streams->add_flag("-j,--json", options->json, kJson);
  streams->footer(
      std::string(kTimes) +
      "An open stream has the bytes and segments that are stored so far. - is what is not known.\n"
      "STREAM is the id, which every command takes, or a part of it that no other stream has.\n" +
      kExitCodes);
  return {streams, [options] { printStreams(*options); }};
}

}  // namespace tool
