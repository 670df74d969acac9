#include "fetch/list_streams.hpp"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "fetch/cluster_reader.hpp"
#include "shm/fd.hpp"
#include "store/stored_stream.hpp"
#include "store/stream_list.hpp"
#include "store_format/manifest_lines.hpp"
#include "store_format/manifest_summary.hpp"
#include "subjects.hpp"

namespace forward {
namespace {

constexpr std::chrono::seconds kPatience(30);

void writeAt(const tool::Fd& file, std::span<const unsigned char> data, std::uint64_t offset) {
  [[maybe_unused]] const ssize_t size =
      pwrite(file.get(), data.data(), data.size(), static_cast<off_t>(offset));
}

// The subject of a manifest's first chunk, if the last one is not the only one.
std::string firstChunkOf(ClusterReader& reader, const StreamName& name) {
  const auto isFirst = [](const std::string& subject) {
    const auto chunk = parseSubject(subject);
    return chunk && chunk->offset == 0;
  };
  const auto all = reader.subjects(
      subjectOf(name) + "." + tool::kManifest + ".*",
      [&](const auto& subjects) { return std::any_of(subjects.begin(), subjects.end(), isFirst); });
  const auto first = std::find_if(all.begin(), all.end(), isFirst);
  return first == all.end() ? "" : *first;
}

// Only the begin and the end of a manifest are needed.
tool::StoredStream streamIn(ClusterReader& reader, const StreamName& name, const Message& last) {
  const tool::Fd manifest(memfd_create(tool::kManifest, MFD_CLOEXEC));
  const std::string offset = headerOf(last, kOffsetHeader);
  const bool isAll = offset.empty() || offset == "0";
  if (!isAll && offset.size() < 19 && offset.find_first_not_of("0123456789") == std::string::npos) {
    const std::string first = firstChunkOf(reader, name);
    if (!first.empty()) {
      writeAt(manifest, dataOf(reader.stored(first)), 0);
    }
    writeAt(manifest, dataOf(last), std::stoull(offset));
  } else {
    writeAt(manifest, dataOf(last), 0);
  }
  tool::StoredStream stream = tool::streamOf(name.stream, tool::readSummary(manifest));
  stream.host = name.host;
  stream.queue = name.queue;
  return stream;
}

std::vector<tool::StoredStream> allStreams(ClusterReader& reader) {
  std::set<std::string> missing =
      reader.subjects(kAllManifests, [](const auto& subjects) { return !subjects.empty(); });
  std::vector<tool::StoredStream> streams;
  if (missing.empty()) {
    return streams;
  }
  const auto use = [&](const std::string& subject, const Message& message) {
    const auto chunk = parseSubject(subject);
    if (missing.erase(subject) > 0 && chunk) {
      streams.push_back(streamIn(reader, chunk->stream, message));
    }
    return !missing.empty();
  };
  reader.read(
      kAllManifests, [] { return false; }, use);
  tool::sortByBegin(streams);
  return streams;
}

}  // namespace

void listStreams(const tool::NatsOptions& options, const tool::StreamChoice& choice) {
  ClusterReader reader(options, kPatience);
  std::vector<tool::StoredStream> streams = allStreams(reader);
  const bool isEmpty = streams.empty();
  tool::keepChosen(streams, choice);
  if (choice.json) {
    tool::printLines(streams);
  } else if (streams.empty()) {
    std::printf("no stream is in the cluster%s\n", isEmpty ? "" : " that the options ask for");
  } else {
    tool::printTable(streams);
  }
}

}  // namespace forward
