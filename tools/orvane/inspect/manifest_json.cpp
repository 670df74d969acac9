#include "inspect/manifest_json.hpp"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <orvane/receipt.hpp>
#include <string_view>
#include <system_error>

#include "store/store_folder.hpp"
#include "store_format/manifest_lines.hpp"
#include "store_format/stream_id.hpp"

namespace tool {
namespace {

constexpr std::string_view kNumbers[] = {"format", "records", "bytes", "skipped"};
// Their values are more than the text in their line.
constexpr std::string_view kParsed[] = {"producer", "label", "reason"};
constexpr const char* kFacts[] = {"format", "queue",   "stream",   "producer", "label",
                                  "begun",  "skipped", "segments", "records",  "bytes",
                                  "end",    "ended",   "reason",   "crc32"};
constexpr char kDamaged[] = "damaged";
constexpr char kLines[] = "lines";
constexpr char kFiles[] = "files";

// Only a compressed file has other bytes than its data.
Json storedOrNull(std::uint64_t stored) {
  return stored == 0 ? Json() : Json(stored);
}

Json jsonOf(const SegmentSummary& segment) {
  const auto& parameters = segment.parameters;
  return {{"segment", segment.number},
          {"records", segment.records},
          {"bytes", segment.bytes},
          {"algorithm", segment.algorithm},
          {"parameters", Json::array({parameters[0], parameters[1], parameters[2]})},
          {"crc32", checksumText(segment.checksum)},
          {"stored", storedOrNull(segment.stored)},
          {"file", segment.file.empty() ? Json() : Json(segment.file)}};
}

// The numbers of a line that lists a file, or the line itself if it makes no sense.
Json numbersIn(const std::string& line) {
  if (const auto segment = parseSegment(line)) {
    return jsonOf(*segment);
  }
  if (const auto others = parseOthers(line)) {
    return {{"records", others->records},
            {"bytes", others->bytes},
            {"crc32", checksumText(others->checksum)},
            {"stored", nullptr},
            {"file", kOtherRecords}};
  }
  if (const auto unfinished = parseUnfinished(line)) {
    return {{"bytes", unfinished->bytes},
            {"crc32", checksumText(unfinished->checksum)},
            {"stored", storedOrNull(unfinished->stored)},
            {"file", unfinished->file}};
  }
  return {{"line", line}};
}

Json valueOf(const std::string& key, const std::string& text) {
  std::uint64_t number = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  const bool isNumber = std::count(std::begin(kNumbers), std::end(kNumbers), key) > 0;
  return isNumber && error == std::errc() && rest == end ? Json(number) : Json(text);
}

// Of a process that the server may not examine, not everything is known.
Json jsonOf(const Producer& producer) {
  return {{"uid", producer.user},
          {"gid", producer.group},
          {"pid", producer.process == 0 ? Json() : Json(producer.process)},
          {"executable", producer.executable.empty() ? Json() : Json(producer.executable)}};
}

Json faultOrNull(const std::string& fault) {
  return fault.empty() ? Json() : Json(fault);
}

}  // namespace

ManifestJson::ManifestJson(const std::string& folder) : id(idOf(folder)) {
  json["stream"] = parseStreamId(id) ? Json(id) : Json();
  json["queue"] = nullptr;
  json["folder"] = folder;
  for (const char* const key : kFacts) {
    facts[key] = nullptr;
  }
  json[kManifest] = nullptr;
  for (const char* const key : {kDamaged, kLines, kFiles}) {
    json[key] = Json::array();
  }
}

void ManifestJson::add(const std::string& line, const std::optional<ListedFile>& file,
                       const std::string& fault) {
  if (head.take(line)) {
    addHead(line);
  } else if (file) {
    json[kFiles].push_back(numbersIn(line));
    json[kFiles].back()["fault"] = faultOrNull(fault);
  } else if (const auto segment = parseSegment(line)) {  // without data
    json[kFiles].push_back(jsonOf(*segment));
    json[kFiles].back()["fault"] = nullptr;
  } else if (const auto receipt = orvane::parseReceipt(line)) {
    facts["segments"] = receipt->segments;  // the rest of it has lines of its own
  } else if (!parseOthers(line)) {
    addOther(line);
  }
}

void ManifestJson::addHead(const std::string& line) {
  const StreamHead& known = head.head();
  if (line.starts_with("producer=")) {
    facts["producer"] = jsonOf(known.producer.value());
  } else if (line.starts_with("label=")) {
    facts["label"] = known.label;
  } else {
    addOther(line);
  }
}

void ManifestJson::addOther(const std::string& line) {
  const int format = facts["format"] == kManifestFormat ? kManifestFormat : kFirstFormat;
  const std::size_t equals = line.find('=');
  const std::string key = line.substr(0, equals);
  const bool isKey = !key.empty() && key != line && key.find(' ') == std::string::npos;
  const bool isParsed = std::count(std::begin(kParsed), std::end(kParsed), key) > 0;
  if (const auto damaged = parseDamaged(line, format)) {
    json[kDamaged].push_back({{"file", damaged->file}, {"fault", damaged->reason}});
  } else if (const auto reason = parseReason(line, format)) {
    facts["reason"] = *reason;
  } else if (isKey && !isParsed && (!facts.contains(key) || facts[key].is_null())) {
    facts[key] = valueOf(key, line.substr(equals + 1));
  } else {
    json[kLines].push_back(line);
  }
}

void ManifestJson::addIncomplete(const std::string& line) {
  json[kLines].push_back(line);
}

void ManifestJson::addState(const std::string& fault) {
  json[kFiles].push_back({{"file", kManifest}, {"fault", faultOrNull(fault)}});
}

void ManifestJson::print() {
  if (!json["stream"].is_null()) {
    json["queue"] = nameInId(id, head.head().label);
  }
  json[kManifest] = facts;
  printLine(json);
}

}  // namespace tool
