#include "inspect/dump_records.hpp"

#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "exit.hpp"
#include "inspect/record_file.hpp"
#include "units.hpp"

namespace tool {
namespace {

// The library shows the check value in an entry's text only.
std::uint32_t checkValueOf(const orvane::ShmBatch::Entry& entry) {
  std::ostringstream text;
  text << entry;
  return static_cast<std::uint32_t>(std::stoul(text.str().substr(text.str().rfind('=') + 1)));
}

void printRecord(std::uint64_t number, const orvane::ShmBatch::Entry& entry, bool json) {
  if (json) {
    Json line = {{"record", number}};
    line.update(jsonOfRecord(entry));
    printLine(line);
  } else {
    std::cout << "[" << number << "]: " << textOfRecord(entry) << "\n";
  }
}

void printRest(const RecordFile& file, bool json) {
  if (json) {
    printLine({{"stray", file.rest()}, {"offset", file.position()}});
  } else {
    std::cout << "broken: " << counted(file.rest(), "byte") << " at byte " << file.position()
              << " belong to no record\n";
  }
}

}  // namespace

std::uint64_t dumpRecords(const std::string& path, bool json) {
  RecordFile file(path);
  for (std::uint64_t number = 0; const auto entry = file.next(); ++number) {
    printRecord(number, *entry, json);
    if (!std::cout) {
      requireOutput();
    }
  }
  if (file.rest() == 0) {
    return 0;
  }
  printRest(file, json);
  return 1;
}

std::string textOfRecord(const orvane::ShmBatch::Entry& entry) {
  std::ostringstream text;
  text << entry << " " << entry.header;
  return text.str();
}

Json jsonOfRecord(const orvane::ShmBatch::Entry& entry) {
  const orvane::pvk_shm_message_t& header = entry.header;
  return {{"type", header.type},
          {"len", header.len},
          {"seqNo", header.seqNo},
          {"segmentNo", header.segmentNo},
          {"segmentDone", header.segmentDone},
          {"segAlg", header.segAlg},
          {"segParam1", header.segParam1},
          {"segParam2", header.segParam2},
          {"segParam3", header.segParam3},
          {"crc", header.len == 0 ? Json() : Json(checkValueOf(entry))}};
}

}  // namespace tool
