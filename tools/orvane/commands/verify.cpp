#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "commands/commands.hpp"
#include "exit.hpp"
#include "interrupt.hpp"
#include "json.hpp"
#include "store/find_stream.hpp"
#include "store/store_check.hpp"
#include "store/store_folder.hpp"
#include "store/stored_stream.hpp"
#include "store_format/manifest_lines.hpp"
#include "store_format/stream_head.hpp"
#include "store_format/stream_id.hpp"
#include "transport/progress.hpp"
#include "units.hpp"

namespace tool {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

struct VerifyOptions {
  std::vector<std::string> names;
  std::optional<std::string> store;
  bool quiet = false;
  bool json = false;
};

bool isStream(const std::string& folder) {
  return parseStreamId(idOf(folder)) || isStreamFolder(folder);
}

void addStreamsOf(const std::string& store, std::vector<std::string>& folders) {
  std::vector<std::string> ids = foldersIn(store);
  std::sort(ids.begin(), ids.end());
  for (const std::string& id : ids) {
    if (std::string folder = folderOf(store, id); isStream(folder)) {
      folders.push_back(std::move(folder));
    }
  }
}

// Returns the folders of the streams that are meant: of those in the stores that are named, and of
// those that are named themselves.
std::vector<std::string> foldersOf(const VerifyOptions& options) {
  std::vector<std::string> folders;
  if (options.names.empty()) {
    addStreamsOf(storeNamed(options.store), folders);
  }
  for (const std::string& name : options.names) {
    std::error_code error;
    const bool isFolder = fs::is_directory(name, error);
    if (isFolder && !isStream(name)) {
      addStreamsOf(name, folders);
    } else if (isFolder) {
      folders.push_back(name);
    } else if (name.find('/') == std::string::npos) {
      folders.push_back(findStream(options.store, name));
    } else {
      throw Failure(kFailed, name + " is neither a store nor a stream: it is no folder");
    }
  }
  return folders;
}

// Returns how many bytes the files have that the manifest of a stream that has ended may list.
std::uint64_t listedBytesIn(const std::string& folder) {
  std::uint64_t bytes = 0;
  std::error_code error;
  for (auto entry = fs::directory_iterator(folder, error);
       !error && entry != fs::directory_iterator(); entry.increment(error)) {
    struct stat status = {};
    const bool isListed = entry->path().filename() != kManifest;
    if (isListed && lstat(entry->path().c_str(), &status) == 0) {
      bytes += static_cast<std::uint64_t>(status.st_size);
    }
  }
  return fs::exists(folder + "/" + kManifest, error) ? bytes : 0;
}

// Returns the bytes to be read. Only progress that is shown needs it.
std::optional<std::uint64_t> expectedBytes(const std::vector<std::string>& folders, bool quiet) {
  if (quiet || isatty(STDERR_FILENO) != 1) {
    return std::nullopt;
  }
  std::uint64_t bytes = 0;
  for (const std::string& folder : folders) {
    bytes += listedBytesIn(folder);
  }
  return bytes;
}

Json jsonOf(const StreamReport& report) {
  const auto known = [&](std::uint64_t orvane::Receipt::*member) {
    return report.receipt ? Json((*report.receipt).*member) : Json();
  };
  Json json = {{"stream", report.id},
               {"folder", report.folder},
               {"format", report.format == 0 ? Json() : Json(report.format)},
               {"records", known(&orvane::Receipt::records)},
               {"bytes", known(&orvane::Receipt::bytes)},
               {"segments", known(&orvane::Receipt::segments)},
               {"end", report.isOpen    ? Json(kOpen)
                       : report.receipt ? Json(textOf(report.receipt->end))
                                        : Json()},
               {"checkedFiles", report.files},
               {"damaged", Json::array()}};
  for (const FileFault& one : report.faults) {
    json["damaged"].push_back({{"file", one.file}, {"fault", one.fault}});
  }
  return json;
}

void printText(const StreamReport& report) {
  if (report.isOpen) {
    std::cout << report.folder << ": not checked: the stream is open\n";
  }
  for (const FileFault& one : report.faults) {
    std::cout << report.folder << (one.file.empty() ? "" : "/") << one.file << ": " << one.fault
              << "\n";
  }
}

// The totals of all reports.
struct Sum {
  std::uint64_t streams = 0;
  std::uint64_t files = 0;
  std::uint64_t bytes = 0;
  std::uint64_t ofFormat1 = 0;
  std::uint64_t faults = 0;
  std::uint64_t damagedStreams = 0;

  void add(const StreamReport& report) {
    streams += report.isOpen ? 0 : 1;
    files += report.files;
    ofFormat1 += report.format == kFirstFormat ? 1 : 0;
    faults += report.faults.size();
    damagedStreams += report.faults.empty() ? 0 : 1;
  }
};

// Prints the reports as they come.
Sum checkAll(const std::vector<std::string>& folders, const VerifyOptions& options) {
  Sum sum;
  Interrupt interrupt;
  Progress progress(expectedBytes(folders, options.quiet), options.quiet);
  StoreCheck checked(folders);
  try {
    while (!checked.isDone()) {
      for (const StreamReport& report : checked.next()) {
        if (report.isRemoved) {
          continue;
        }
        sum.add(report);
        if (options.json || report.isOpen || !report.faults.empty()) {
          progress.clear();
          options.json ? printLine(jsonOf(report)) : printText(report);
        }
      }
      const std::uint64_t bytes = checked.takeBytes();
      sum.bytes += bytes;
      progress.advance(bytes);
      interrupt.check();
      if (!std::cout) {
        requireOutput();
      }
    }
  } catch (Interrupted& interrupted) {
    interrupted.during = "after " + counted(sum.streams, "stream");
    throw;
  }
  return sum;
}

void printSum(const Sum& sum, double seconds) {
  std::cout << "checked " << counted(sum.streams, "stream") << ", " << counted(sum.files, "file")
            << ", " << bytesText(static_cast<double>(sum.bytes)) << ", "
            << timeAndRate(sum.bytes, seconds) << "\n";
  if (sum.ofFormat1 > 0) {
    std::cout
        << "of these, " << counted(sum.ofFormat1, "stream")
        << " of format 1: a change of its manifest that contradicts nothing cannot be found\n";
  }
}

// Throws Failure if something is damaged.
void verify(const VerifyOptions& options) {
  const std::vector<std::string> folders = foldersOf(options);
  const auto start = Clock::now();
  const Sum sum = checkAll(folders, options);
  if (!options.json) {
    printSum(sum, std::chrono::duration<double>(Clock::now() - start).count());
  }
  requireOutput();
  if (sum.faults > 0) {
    throw Failure(kFailed,
                  counted(sum.faults, "fault") + " in " + counted(sum.damagedStreams, "stream"));
  }
}

}  // namespace

Command addVerify(CLI::App& app) {
  CLI::App* command =
      app.add_subcommand("verify", "Check every file of stored streams against its manifest");
  const auto options = std::make_shared<VerifyOptions>();
  command->set_version_flag("--version", kVersion);
  command->add_option("--store", options->store, kStoreHelp)->type_name("STORE");
  command
      ->add_option("NAME", options->names,
                   "Stores, all streams of which are checked, and streams: an id, a part of\n"
                   "it that no other stream has, or a path; by default all streams of the\n"
                   "store")
      ->type_name("");
  command->add_flag("--quiet", options->quiet, kQuiet);
  command->add_flag("-j,--json", options->json, kJson);
  command->footer(
      std::string("verify names each file that is damaged, missing or not listed, and then fails.\n"
                  "It does not check open streams, and says so.\n") +
      kExitCodes);
  return {command, [options] { verify(*options); }};
}

}  // namespace tool
