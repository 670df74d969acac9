#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <orvane/orvane.hpp>
#include <sstream>

#include "commands/commands.hpp"
#include "exit.hpp"
#include "inspect/capture_reader.hpp"
#include "inspect/dump_stream.hpp"
#include "inspect/json.hpp"
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

// The library shows the check value in an entry's text only.
std::uint32_t checkValueOf(const ShmBatch::Entry& entry) {
  std::ostringstream text;
  text << entry;
  return static_cast<std::uint32_t>(std::stoul(text.str().substr(text.str().rfind('=') + 1)));
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
      std::cout << "[" << index++ << "]: " << entry << " " << entry.header << "\n";
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
      records.push_back(jsonOf(entry));
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
  static Json jsonOf(const ShmBatch::Entry& entry) {
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

// Prints what a capture, a file with one batch, or a stored stream's folder holds; "-" is a capture
// or a batch on standard input. Throws Failure after the last line if something in it is broken.
void printDump(const std::string& path, bool json) {
  signal(SIGPIPE, SIG_DFL);  // a reader of the output that ends has seen enough: print no message
  const bool isFolder = std::filesystem::is_directory(path);
  const std::uint64_t broken = isFolder ? dumpStream(path, json) : dumpFile(path, json);
  requireOutput();
  if (broken > 0) {
    const std::string noun = isFolder ? "file" : "message";
    throw Failure(kFailed, counted(broken, "broken " + noun) + " in " +
                               (path == "-" ? "standard input" : path));
  }
}

}  // namespace

Command addDump(CLI::App& app) {
  CLI::App* dump = app.add_subcommand("dump", "Show what a capture or a stored stream holds");
  const auto path = std::make_shared<std::string>();
  const auto json = std::make_shared<bool>(false);
  dump->set_version_flag("--version", kVersion);
  dump->add_option("FILE", *path,
                   "A capture (orvaned --capture), a file with one batch, or the folder of\n"
                   "a stored stream; - is a capture or a batch on standard input")
      ->required()
      ->type_name("");
  dump->add_flag("--json", *json, "Print JSON, one object on each line");
  dump->footer(
      std::string("For each record, dump shows the type, the length and Adler-32 of the data, and "
                  "the header:\n"
                  "(seqNo,type,len,segAlg,segmentNo,segmentDone,segParam1,segParam2,segParam3,"
                  "magic).\n"
                  "For a stored stream, it shows the manifest, and whether each file matches it.\n"
                  "If something is broken, it shows the reason and fails.\n") +
      kExitCodes);
  return {dump, [path, json] { printDump(*path, *json); }};
}

}  // namespace tool
