#include "inspect/dump_stream.hpp"

#include <filesystem>
#include <iostream>
#include <optional>
#include <stdexcept>

#include "exit.hpp"
#include "inspect/dump_records.hpp"
#include "inspect/manifest_json.hpp"
#include "store/store_folder.hpp"
#include "store_format/manifest_reader.hpp"
#include "store_format/stream_head.hpp"

namespace tool {
namespace {

namespace fs = std::filesystem;

std::string faultOf(const ListedFile& file, const fs::path& folder) {
  return file.name.empty() ? "this line makes no sense"
                           : faultOf((folder / file.name).string(), file.content);
}

ManifestReader openManifest(const fs::path& folder) {
  const std::string manifest = folder / kManifest;
  if (fs::exists(fs::symlink_status(manifest))) {
    return {openStored(manifest), manifest};
  }
  if (fs::exists(folder / (std::string(kManifest) + kUnfinished))) {
    throw Failure(kFailed, "the stream in " + folder.string() +
                               " has not ended: orvaned is storing it, or died; the next orvaned "
                               "with this store finishes it then");
  }
  throw Failure(kFailed, noStreamIn(folder));
}

// Prints a manifest's lines as they are, as ManifestJson does it in JSON.
class ManifestText {
 public:
  void add(const std::string& line, const std::optional<ListedFile>& file,
           const std::string& fault) const {
    std::cout << line << "\n";
    if (file) {
      printState(file->name, fault);
    }
  }
  void addIncomplete(const std::string& line) const { std::cout << line << "\n"; }
  void addState(const std::string& fault) const { printState(kManifest, fault); }
  void print() const {}

 private:
  static void printState(const std::string& name, const std::string& fault) {
    std::cout << "  " << name << (name.empty() ? "" : ": ")
              << (fault.empty() ? "whole" : "damaged: ") << fault << "\n";
  }
};

// A file that is damaged or missing is already reported with its line.
void printOtherRecords(const std::string& folder, bool json) {
  const std::string path = folder + "/" + kOtherRecords;
  try {
    dumpRecords(path, json);
  } catch (const Failure&) {
    throw;
  } catch (const std::runtime_error&) {
    return;
  }
}

// Reads one line after another, because there may be more of them than fit in memory; then tells
// whether the manifest itself is whole, which in format 1 cannot be known.
template <typename Printer>
std::uint64_t dumpLines(const std::string& folder, bool json, Printer printer) {
  ManifestReader manifest = openManifest(folder);
  std::uint64_t damaged = 0;
  bool hasRecords = false;
  while (const auto line = manifest.next()) {
    const auto file = fileIn(*line);
    hasRecords = hasRecords || (file && file->name == kOtherRecords);
    const std::string fault = file ? faultOf(*file, folder) : "";
    damaged += fault.empty() ? 0 : 1;
    printer.add(*line, file, fault);
  }
  if (manifest.error() != 0) {
    failToRead(folder + "/" + kManifest, manifest.error());
  }
  if (!manifest.rest().empty()) {
    printer.addIncomplete(manifest.rest());
  }
  const std::string fault = manifest.fault();
  if (!fault.empty() || manifest.format() != kFirstFormat) {
    printer.addState(fault);
  }
  printer.print();
  if (hasRecords) {
    printOtherRecords(folder, json);
  }
  return damaged + (fault.empty() ? 0 : 1);
}

}  // namespace

std::uint64_t dumpStream(const std::string& folder, bool json) {
  return json ? dumpLines(folder, json, ManifestJson(folder))
              : dumpLines(folder, json, ManifestText());
}

}  // namespace tool
