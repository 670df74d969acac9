#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <orvane/orvane.hpp>
#include <string>
#include <vector>

#include "commands/commands.hpp"
#include "exit.hpp"
#include "inspect/capture_reader.hpp"
#include "inspect/dump_records.hpp"
#include "inspect/dump_stream.hpp"
#include "inspect/record_file.hpp"
#include "json.hpp"
#include "reason.hpp"
#include "store/find_stream.hpp"
#include "store/store_folder.hpp"
#include "units.hpp"

namespace tool {
namespace {

using orvane::BatchView;
using orvane::ShmBatch;
using Bytes = std::span<const unsigned char>;

constexpr std::size_t kShownOfBroken = 64;

std::string hex(Bytes bytes) {
  std::string text;
  for (const unsigned char byte : bytes) {
    char digits[3];
    std::snprintf(digits, sizeof digits, "%02x", byte);
    text += digits;
  }
  return text;
}

// Prints the bytes in the form that docs/format.md uses.
void printHex(Bytes bytes) {
  for (std::size_t at = 0; at < bytes.size(); at += 16) {
    std::cout.width(6);
    std::cout << at << " ";
    for (const unsigned char& byte :
         bytes.subspan(at, std::min<std::size_t>(16, bytes.size() - at))) {
      std::cout << " " << hex({&byte, 1});
    }
    std::cout << "\n";
  }
}

class TextPrinter {
 public:
  void message(std::uint64_t number, const std::string& queue, Bytes bytes) {
    std::cout << "message " << number << (queue.empty() ? "" : ", queue ") << queue << ", "
              << counted(bytes.size(), "byte") << "\n";
  }
  // Prints the library's text of a batch, but each record on its own line and with its header.
  void batch(const BatchView& batch, Bytes bytes) {
    std::cout << "ShmBatch: entries=" << batch.size() << ", bufferSize=" << bytes.size()
              << ", used=" << bytes.size() << "\n";
    std::size_t index = 0;
    for (const ShmBatch::Entry& entry : batch) {
      std::cout << "[" << index++ << "]: " << textOfRecord(entry) << "\n";
    }
  }
  void broken(const std::string& reason, Bytes start) {
    std::cout << "broken: " << reason << "\n";
    printHex(start);
  }
  void stray(std::uint64_t offset, std::size_t size, Bytes start) {
    broken(counted(size, "byte") + " at byte " + std::to_string(offset) + " belong to no message",
           start);
  }
  void end() {}
};

class JsonPrinter {
 public:
  void message(std::uint64_t number, const std::string& queue, Bytes bytes) {
    line["message"] = number;
    line["queue"] = queue.empty() ? Json() : Json(queue);
    line["bytes"] = bytes.size();
  }
  void batch(const BatchView& batch, Bytes) {
    Json& records = line["records"] = Json::array();
    for (const ShmBatch::Entry& entry : batch) {
      records.push_back(jsonOfRecord(entry));
    }
  }
  void broken(const std::string& reason, Bytes start) {
    line["broken"] = reason;
    line["start"] = hex(start);
  }
  void stray(std::uint64_t offset, std::size_t size, Bytes start) {
    line["stray"] = size;
    line["offset"] = offset;
    line["start"] = hex(start);
  }
  void end() {
    printLine(line);
    line.clear();
  }

 private:
  Json line = Json::object();
};

// Returns the number of broken messages.
template <typename Printer>
std::uint64_t dumpMessages(CaptureReader& capture, Printer print) {
  std::uint64_t broken = 0;
  std::uint64_t number = 0;
  while (const auto piece = capture.next()) {
    const Bytes start = piece->bytes.first(std::min(piece->bytes.size(), kShownOfBroken));
    if (!piece->isMessage) {
      ++broken;
      print.stray(piece->offset, piece->bytes.size(), start);
    } else {
      print.message(number++, piece->queue, piece->bytes);
      try {
        print.batch(BatchView(piece->bytes.data(), piece->bytes.size()), piece->bytes);
      } catch (const Ox_ErrnoException& e) {
        ++broken;
        print.broken(e.message(), start);
      }
    }
    print.end();
    if (!std::cout) {
      requireOutput();
    }
  }
  return broken;
}

std::uint64_t dumpFile(const std::string& path, bool json) {
  Interrupt interrupt;
  Input input(path);
  CaptureReader capture(input, interrupt);
  return json ? dumpMessages(capture, JsonPrinter()) : dumpMessages(capture, TextPrinter());
}

struct DumpOptions {
  std::vector<std::string> files;
  std::optional<std::string> store;
  bool json = false;
};

// Returns the path itself or, if there is nothing and it may be an id, the folder of that stream.
std::string pathOf(const std::string& file, const std::optional<std::string>& store) {
  if (file == "-" || file.find('/') != std::string::npos || std::filesystem::exists(file)) {
    return file;
  }
  try {
    return findStream(store, file);
  } catch (const Failure& failure) {
    throw Failure(kFailed, "there is no file " + file + ", and " + failure.what());
  }
}

// Prints what a capture, a file with one batch or with records, or a stored stream's folder holds;
// "-" is a capture or a batch on standard input. Returns what is wrong with it, or "".
std::string dumpOne(const std::string& file, const DumpOptions& options) {
  try {
    const bool json = options.json;
    const std::string path = pathOf(file, options.store);
    const bool isFolder = std::filesystem::is_directory(path);
    const bool hasRecords = !isFolder && path != "-" && isRecordFile(path);
    const std::uint64_t broken = isFolder     ? dumpStream(path, json)
                                 : hasRecords ? dumpRecords(path, json)
                                              : dumpFile(path, json);
    const std::string noun = isFolder     ? "broken file"
                             : hasRecords ? "broken record"
                                          : "broken message";
    return broken == 0 ? ""
                       : counted(broken, noun) + " in " + (path == "-" ? "standard input" : path);
  } catch (const Failure& failure) {
    if (!std::cout) {
      throw;
    }
    return failure.what();
  } catch (const std::exception& e) {
    return reasonOf(e);
  }
}

// Throws Failure after the last line if something is broken.
void printDumps(const DumpOptions& options) {
  const std::vector<std::string>& files = options.files;
  signal(SIGPIPE, SIG_DFL);  // a reader of the output that ends has seen enough: print no message
  std::string faults;
  for (const std::string& file : files) {
    if (files.size() > 1 && !options.json) {
      std::cout << (&file == files.data() ? "" : "\n") << file << ":\n";
    }
    const std::string fault = dumpOne(file, options);
    faults += (faults.empty() || fault.empty() ? "" : "; ") + fault;
  }
  requireOutput();
  if (!faults.empty()) {
    throw Failure(kFailed, faults);
  }
}

}  // namespace

Command addDump(CLI::App& app) {
  CLI::App* dump = app.add_subcommand("dump", "Show what a capture or a stored stream holds");
  const auto options = std::make_shared<DumpOptions>();
  dump->set_version_flag("--version", kVersion);
  dump->add_option("FILE", options->files,
                   "Captures (orvaned --capture), files with one batch or with records\n"
                   "(QUEUE-outside-records), or stored streams: their ids, parts of these\n"
                   "that no other stream has, or paths of their folders; - is a capture or\n"
                   "a batch on standard input")
      ->required()
      ->type_name("");
  dump->add_option("--store", options->store, kStoreHelp)->type_name("STORE");
  dump->add_flag("-j,--json", options->json, kJson);
  dump->footer(
      std::string("For each record, dump shows the type, the length and Adler-32 of the data, and "
                  "the header:\n"
                  "(seqNo,type,len,segAlg,segmentNo,segmentDone,segParam1,segParam2,segParam3,"
                  "magic).\n"
                  "For a stored stream, it shows the manifest, whether each file matches it,\n"
                  "whether the manifest itself is whole, and the stream's other records.\n"
                  "If something is broken, it shows the reason and fails.\n") +
      kExitCodes);
  return {dump, [options] { printDumps(*options); }};
}

}  // namespace tool
