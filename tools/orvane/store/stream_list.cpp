#include "store/stream_list.hpp"

#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "json.hpp"
#include "units.hpp"
#include "user_name.hpp"

namespace tool {
namespace {

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
constexpr char kLine[] = "%-20s  %11s  %7s  %8s  %8s  %-7s  %-8s  %s%s\n";

// "HOST/QUEUE/", as orvane fetch takes it; "" for a stream of a store.
std::string placeOf(const StoredStream& stream) {
  return stream.host.empty() ? "" : stream.host + "/" + stream.queue + "/";
}

void printRow(const StoredStream& stream) {
  const auto bytes = stream.bytes ? bytesText(static_cast<double>(*stream.bytes)) : "-";
  std::printf(kLine, beginText(stream).c_str(), secondsText(stream).c_str(), bytes.c_str(),
              numberText(stream.records).c_str(), numberText(stream.segments).c_str(),
              stream.end.empty() ? "-" : stream.end.c_str(),
              stream.uid ? userName(*stream.uid).c_str() : "-", placeOf(stream).c_str(),
              stream.id.c_str());
}

template <typename Value>
Json jsonOrNull(const std::optional<Value>& value) {
  return value ? Json(*value) : Json();
}

Json textOrNull(const std::string& text) {
  return text.empty() ? Json() : Json(text);
}

Json jsonOf(const StoredStream& stream) {
  Json json = {{"stream", stream.id},
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
  if (!stream.host.empty()) {
    json["host"] = stream.host;
  }
  return json;
}

}  // namespace

void printTable(const std::vector<StoredStream>& streams) {
  std::printf(kLine, "BEGUN", "TIME", "SIZE", "RECORDS", "SEGMENTS", "END", "USER", "", "STREAM");
  for (const StoredStream& stream : streams) {
    printRow(stream);
  }
}

void printLines(const std::vector<StoredStream>& streams) {
  for (const StoredStream& stream : streams) {
    printLine(jsonOf(stream));
  }
}

}  // namespace tool
