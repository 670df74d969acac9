#include "fetch/fetch_stream.hpp"

#include <chrono>
#include <cstdio>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "exit.hpp"
#include "fetch/cluster_reader.hpp"
#include "fetch/received_stream.hpp"
#include "json.hpp"
#include "store/store_check.hpp"
#include "subjects.hpp"
#include "units.hpp"

namespace forward {
namespace {

using tool::Failure;
using Clock = std::chrono::steady_clock;

// What is being fetched. Each message comes here, perhaps more than once.
class Fetch {
 public:
  Fetch(const tool::FetchOptions& options, ClusterReader& reader)
      : options(options),
        reader(reader),
        name(*parseStreamName(options.stream)),
        pattern(subjectOf(name) + ".>"),
        stream(options.folder) {}

  void run() {
    if (!options.follow) {
      requireWhole();
    }
    if (!missing || !missing->empty()) {
      reader.read(
          pattern, [this] { return !missing; },
          [this](const std::string& subject, const Message& message) {
            return take(subject, message);
          });
    }
    for (const std::string& file : stream.conclude()) {
      faults.push_back(file + ": parts of it are missing");
    }
    compareWithManifest();
  }

  const ReceivedStream& received() const { return stream; }
  const std::vector<std::string>& allFaults() const { return faults; }

 private:
  // Who has sent the manifest has sent everything before.
  void requireWhole() {
    const std::string manifest = manifestSubject(name);
    missing =
        reader.subjects(pattern, [&](const auto& subjects) { return subjects.contains(manifest); });
    if (missing->empty()) {
      throw Failure(tool::kFailed, "the cluster has no stream " + options.stream +
                                       ": orvane streams --nats lists all streams");
    }
    if (!missing->contains(manifest)) {
      throw Failure(tool::kFailed, "the stream " + options.stream +
                                       " is not forwarded completely: orvane fetch --follow waits "
                                       "for the rest");
    }
  }

  // Returns whether more is to come.
  bool take(const std::string& subject, const Message& message) {
    const auto chunk = parseSubject(subject);
    if (!chunk || !taken.insert(subject).second) {
      return isMore(subject);
    }
    std::string fault;
    const auto part = ReceivedStream::partOf(
        *chunk, headerOf(message, kOffsetHeader), headerOf(message, kChecksumHeader),
        !headerOf(message, kLastHeader).empty(), dataOf(message), fault);
    if (!part) {
      faults.push_back("chunk " + subject + " is damaged: " + fault);
    } else if (stream.take(*part) && options.follow && !options.json) {
      std::printf("fetched %s\n", part->file.c_str());
      tool::requireOutput();
    }
    if (chunk->endsManifest && !missing) {
      askForAll();
    }
    return isMore(subject);
  }

  void askForAll() {
    missing = reader.subjects(pattern, [](const auto& subjects) { return !subjects.empty(); });
    for (const std::string& known : taken) {
      missing->erase(known);
    }
  }

  bool isMore(const std::string& subject) {
    if (missing) {
      missing->erase(subject);
    }
    return !missing || !missing->empty();
  }

  void compareWithManifest() {
    tool::StoreCheck check(std::vector<std::string>{options.folder});
    while (!check.isDone()) {
      for (const tool::StreamReport& report : check.next()) {
        for (const tool::FileFault& fault : report.faults) {
          faults.push_back(fault.file + ": " + fault.fault);
        }
      }
    }
  }

  const tool::FetchOptions& options;
  ClusterReader& reader;
  const StreamName name;
  const std::string pattern;
  ReceivedStream stream;
  std::set<std::string> taken;
  std::optional<std::set<std::string>> missing;  // none: not known yet
  std::vector<std::string> faults;
};

void report(const tool::FetchOptions& options, const Fetch& fetch, double seconds) {
  const std::uint64_t bytes = fetch.received().bytes();
  if (options.json) {
    tool::Json json = {{"stream", options.stream},          {"folder", options.folder},
                       {"files", fetch.received().files()}, {"bytes", bytes},
                       {"seconds", tool::rounded(seconds)}, {"faults", fetch.allFaults()}};
    return tool::printLine(json);
  }
  for (const std::string& fault : fetch.allFaults()) {
    std::printf("%s\n", fault.c_str());
  }
  std::printf("fetched %s, %s, %s, %s\n", options.stream.c_str(),
              tool::counted(fetch.received().files(), "file").c_str(),
              tool::bytesText(static_cast<double>(bytes)).c_str(),
              tool::timeAndRate(bytes, seconds).c_str());
}

}  // namespace

void fetchStream(const tool::FetchOptions& options) {
  const auto begin = Clock::now();
  ClusterReader reader(options.nats, std::chrono::seconds(options.timeout));
  Fetch fetch(options, reader);
  fetch.run();
  const std::chrono::duration<double> time = Clock::now() - begin;
  report(options, fetch, time.count());
  std::cout.flush();
  tool::requireOutput();
  if (!fetch.allFaults().empty()) {
    throw Failure(tool::kFailed, "the stream is damaged");
  }
}

}  // namespace forward
