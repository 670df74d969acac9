#include "inspect/dump_stream.hpp"

#include <filesystem>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <vector>

#include "exit.hpp"
#include "inspect/json.hpp"
#include "store_format/manifest_reader.hpp"

namespace tool {
namespace {

namespace fs = std::filesystem;

std::string faultOf(const ListedFile& file, const fs::path& folder) {
  return file.name.empty() ? "this line makes no sense"
                           : faultOf((folder / file.name).string(), file.content);
}

std::vector<std::string> readManifest(const fs::path& folder) {
  const fs::path manifest = folder / kManifest;
  if (fs::exists(fs::symlink_status(manifest))) {
    try {
      return linesOfManifest(manifest.string());
    } catch (const std::runtime_error& e) {
      throw Failure(kFailed, e.what());
    }
  }
  if (fs::exists(folder / (std::string(kManifest) + kUnfinished))) {
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
  std::uint64_t damaged = 0;
  for (const std::string& line : readManifest(folder)) {
    const auto file = fileIn(line);
    const std::string fault = file ? faultOf(*file, folder) : "";
    damaged += fault.empty() ? 0 : 1;
    (json ? printJson : printText)(line, file, fault);
  }
  return damaged;
}

}  // namespace tool
