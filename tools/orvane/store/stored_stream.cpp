#include "store/stored_stream.hpp"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <exception>
#include <future>
#include <iterator>
#include <thread>
#include <tuple>
#include <utility>

#include "shm/fd.hpp"
#include "store/open_stream.hpp"
#include "store/store_folder.hpp"
#include "store_format/manifest_lines.hpp"
#include "store_format/stored_file.hpp"
#include "store_format/stream_id.hpp"

namespace tool {
namespace {

constexpr int kRead = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

// Fewer streams are read faster than threads start.
constexpr std::size_t kWorthAThread = 1000;
constexpr std::size_t kMostThreads = 4;

// The most bytes of a compressed file that are read to count its data.
constexpr std::uint64_t kMostCounted = 4 << 20;

// "20261121T023224-4711_0" began at 2026-11-21T02:32:24.
std::optional<UtcTime> beginOf(const std::string& stream) {
  constexpr std::size_t kTime = 15;
  if (stream.size() < kTime) {
    return std::nullopt;
  }
  std::string time = stream.substr(0, kTime);
  time.insert(13, ":").insert(11, ":").insert(6, "-").insert(4, "-");
  return parseUtc(time + ".000Z");
}

void setSeconds(StoredStream& stream, UtcTime end) {
  if (stream.begun) {
    stream.seconds = std::chrono::duration<double>(end - *stream.begun).count();
  }
}

// A lease's queue has a name that nobody knows, so its streams have the name of the socket.
void setHead(StoredStream& stream, const StreamHead& head) {
  stream.label = head.label;
  stream.queue = head.producer ? nameInId(stream.id, head.label) : head.queue;
  stream.begun = head.begun ? head.begun : beginOf(head.stream);
  if (head.producer) {
    stream.uid = head.producer->user;
    stream.pid = head.producer->process == 0 ? std::nullopt : std::optional(head.producer->process);
  }
}

void setEnded(StoredStream& stream, const ManifestSummary& summary) {
  setHead(stream, summary.head);
  stream.records = summary.receipt.records;
  stream.bytes = summary.receipt.bytes;
  stream.segments = summary.receipt.segments;
  stream.end = textOf(summary.receipt.end);
  stream.ended = summary.ended;
  if (stream.ended) {
    setSeconds(stream, *stream.ended);
  }
}

// A file may also have got another name meanwhile, be damaged, or need a libzstd that is missing.
std::optional<std::uint64_t> dataBytesOf(const UnlistedSegment& segment,
                                         const std::string& folder) {
  if (!isCompressed(segment.file)) {
    return segment.fileBytes;
  }
  if (segment.fileBytes > kMostCounted) {
    return std::nullopt;
  }
  try {
    return contentOf(folder + "/" + segment.file).bytes;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

void setOpen(StoredStream& stream, const OpenStream& open) {
  if (!open.head.queue.empty()) {
    setHead(stream, open.head);
  }
  stream.bytes = 0;
  stream.segments = 0;
  const auto add = [&](std::optional<std::uint64_t> bytes) {
    stream.bytes = stream.bytes && bytes ? std::optional(*stream.bytes + *bytes) : std::nullopt;
    *stream.segments += bytes.value_or(1) > 0 ? 1 : 0;
  };
  for (const SegmentSummary& segment : open.listed) {
    add(segment.bytes);
  }
  for (const UnlistedSegment& segment : open.unlisted) {
    add(dataBytesOf(segment, stream.folder));
  }
  stream.end = kOpen;
  setSeconds(stream, utcNow());
}

// Returns nothing if the folder holds no stream, or is removed meanwhile.
std::optional<StoredStream> streamIn(const Fd& store, const std::string& path,
                                     const std::string& id) {
  StoredStream stream = streamOf(id, std::nullopt);
  stream.folder = path + "/" + id;
  const std::string name = id + "/" + kManifest;
  Fd manifest(openat(store.get(), name.c_str(), kRead));
  if (manifest.get() < 0 && errno == ENOENT) {
    const Fd folder(openat(store.get(), id.c_str(), kRead | O_DIRECTORY));
    if (const auto open = lookAtOpen(folder)) {
      setOpen(stream, *open);
      return stream;
    }
    manifest = Fd(openat(folder.get(), kManifest, kRead));  // the stream may have ended meanwhile
    if (folder.get() < 0 || (manifest.get() < 0 && !parseStreamId(id))) {
      return std::nullopt;
    }
    if (manifest.get() < 0) {
      setOpen(stream, {});  // it has just begun
      return stream;
    }
  }
  if (const auto summary = readSummary(manifest)) {
    setEnded(stream, *summary);
  }
  return stream;
}

using Names = std::vector<std::string>;

std::vector<StoredStream> streamsOf(const Fd& store, const std::string& path,
                                    Names::const_iterator begin, Names::const_iterator end) {
  std::vector<StoredStream> streams;
  streams.reserve(static_cast<std::size_t>(end - begin));
  for (; begin != end; ++begin) {
    if (auto stream = streamIn(store, path, *begin)) {
      streams.push_back(std::move(*stream));
    }
  }
  return streams;
}

// Of two streams that began in the same millisecond, the later one has the larger number.
bool isOlder(const StoredStream& a, const StoredStream& b) {
  return std::forward_as_tuple(a.begun, a.id.size(), a.id) <
         std::forward_as_tuple(b.begun, b.id.size(), b.id);
}

}  // namespace

std::vector<StoredStream> streamsIn(const std::string& store) {
  const Names names = foldersIn(store);
  const Fd folder(open(store.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  const std::size_t threads = std::clamp<std::size_t>(
      names.size() / kWorthAThread, 1,
      std::clamp<std::size_t>(std::thread::hardware_concurrency(), 1, kMostThreads));
  std::vector<std::future<std::vector<StoredStream>>> parts;
  for (std::size_t i = 0; i < threads; ++i) {
    const auto at = [&](std::size_t part) {
      return names.begin() + static_cast<std::ptrdiff_t>(names.size() * part / threads);
    };
    parts.push_back(std::async(threads == 1 ? std::launch::deferred : std::launch::async, streamsOf,
                               std::cref(folder), std::cref(store), at(i), at(i + 1)));
  }
  std::vector<StoredStream> streams;
  for (auto& part : parts) {
    std::vector<StoredStream> some = part.get();
    streams.insert(streams.end(), std::make_move_iterator(some.begin()),
                   std::make_move_iterator(some.end()));
  }
  sortByBegin(streams);
  return streams;
}

StoredStream streamOf(const std::string& id, const std::optional<ManifestSummary>& summary) {
  StoredStream stream;
  stream.id = id;
  if (const auto parts = parseStreamId(id)) {
    stream.queue = parts->nameAndLabel;
    stream.begun = beginOf(parts->stream);
  }
  if (summary) {
    setEnded(stream, *summary);
  }
  return stream;
}

void sortByBegin(std::vector<StoredStream>& streams) {
  std::sort(streams.begin(), streams.end(), isOlder);
}

}  // namespace tool
