#include "inspect/dump_stream.hpp"

#include <filesystem>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <orvane/orvane.hpp>
#include <sstream>
#include <stdexcept>

#include "exit.hpp"
#include "inspect/json.hpp"
#include "store_format/manifest_lines.hpp"
#include "store_format/stored_file.hpp"

namespace tool {
namespace {

namespace fs = std::filesystem;

struct ListedFile {
  std::string name;  // empty if the line is invalid
  Content content;
};

ListedFile fileOf(const SegmentSummary& segment) {
  return {segment.file, {segment.bytes, segment.checksum}};
}

ListedFile fileOf(const OtherRecords& others) {
  const std::uint64_t headers = others.records * orvane::pvk_shm_message_t::getSerializedSize();
  return {kOtherRecords, {headers + others.bytes, others.checksum}};
}

ListedFile fileOf(const UnfinishedFile& unfinished) {
  return {unfinished.file, {unfinished.bytes, unfinished.checksum}};
}

// Returns the file that a line of the manifest lists, or nothing if the line lists none.
std::optional<ListedFile> fileIn(const std::string& line) {
  const auto listed = [](const auto& parsed) { return parsed ? fileOf(*parsed) : ListedFile(); };
  if (line.starts_with("segment ") && !line.ends_with(" file=-")) {
    return listed(parseSegment(line));
  }
  if (line.starts_with("other-records=") && !line.starts_with("other-records=0 ")) {
    return listed(parseOthers(line));
  }
  if (line.starts_with("unfinished ")) {
    return listed(parseUnfinished(line));
  }
  return std::nullopt;
}

std::string faultOf(const ListedFile& file, const fs::path& folder) {
  return file.name.empty() ? "this line makes no sense"
                           : faultOf((folder / file.name).string(), file.content);
}

std::string readManifest(const fs::path& folder) {
  const fs::path manifest = folder / "manifest";
  if (fs::exists(fs::symlink_status(manifest))) {
    try {
      return textOfStored(manifest.string());
    } catch (const std::runtime_error& e) {
      throw Failure(kFailed, e.what());
    }
  }
  if (fs::exists(folder / ("manifest" + std::string(kUnfinished)))) {
    throw Failure(kFailed, "the stream in " + folder.string() +
                               " has not ended: orvaned is storing it, or died; the next orvaned "
                               "with this store finishes it then");
  }
  throw Failure(kFailed, "no stream is stored in " + folder.string() +
                             ": name a folder with a manifest, such as STORE/QUEUE-ID");
}

void printText(const std::string& line, const std::optional<ListedFile>& file,
               const std::string& fault) {
  std::cout << line << "\n";
  if (file) {
    std::cout << "  " << file->name << (file->name.empty() ? "" : ": ")
              << (fault.empty() ? "whole" : "damaged: ") << fault << "\n";
  }
}

void printJson(const std::string& line, const std::optional<ListedFile>& file,
               const std::string& fault) {
  Json json = {{"line", line}};
  if (file) {
    json["file"] = file->name;
    json["fault"] = fault.empty() ? Json() : Json(fault);
  }
  printLine(json);
}

}  // namespace

std::uint64_t dumpStream(const std::string& folder, bool json) {
  std::istringstream manifest(readManifest(folder));
  std::uint64_t damaged = 0;
  for (std::string line; std::getline(manifest, line);) {
    const auto file = fileIn(line);
    const std::string fault = file ? faultOf(*file, folder) : "";
    damaged += fault.empty() ? 0 : 1;
    (json ? printJson : printText)(line, file, fault);
  }
  return damaged;
}

}  // namespace tool
