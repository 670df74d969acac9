#include "store/recovery.hpp"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <orvane/orvane.hpp>
#include <orvane/server_status.hpp>
#include <regex>
#include <set>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

#include "log.hpp"
#include "store/manifest_file.hpp"
#include "store_format/manifest_reader.hpp"

namespace orvaned {
namespace {

namespace fs = std::filesystem;

// The valid lines of a manifest, up to the first one that is incomplete or invalid.
struct ManifestContent {
  std::uint64_t bytes = 0;  // of the first lines and the segments' lines; 0: no first lines
  std::vector<SegmentSummary> segments;
  OtherRecords others;
  std::optional<orvane::Receipt> receipt;  // if the manifest misses only its final name
  std::uint64_t allBytes = 0;              // if there is a receipt
};

ManifestContent readListed(tool::ManifestReader& manifest, const std::string& queue,
                           const std::string& stream) {
  ManifestContent listed;
  for (const std::string& first : tool::firstLines(queue, stream)) {
    if (manifest.next() != first) {
      return {};
    }
  }
  listed.bytes = manifest.bytes();
  std::optional<std::string> line = manifest.next();
  for (; line; line = manifest.next()) {
    const auto segment = parseSegment(*line);
    if (!segment) {
      break;
    }
    listed.segments.push_back(*segment);
    listed.bytes = manifest.bytes();
  }
  if (const auto others = parseOthers(line.value_or(""))) {
    listed.others = *others;
  }
  std::optional<orvane::Receipt> receipt;
  while ((line = manifest.next())) {
    if (const auto found = orvane::parseReceipt(*line)) {
      receipt = found;
    }
    if (tool::isReason(*line)) {
      listed.receipt = receipt;
    }
  }
  listed.allBytes = manifest.bytes();
  return listed;
}

// The folder of a stream that a server or a worker left when it died.
class UnfinishedStreamFolder {
 public:
  UnfinishedStreamFolder(StreamDirectory& folder, Sync sync)
      : folder(folder), sync(sync), manifest(&folder, sync) {}

  // Has another process finished it in the meantime?
  bool isFinished();

  // Returns its receipt.
  orvane::Receipt finish(const std::string& queue, const std::string& stream,
                         const std::string& reason);

  std::size_t damagedFiles() const { return damaged.size(); }

 private:
  struct Damage {
    std::string name;
    std::string reason;
  };

  bool has(const std::string& name) const { return names.contains(name); }
  ManifestContent readManifest(const std::string& queue, const std::string& stream);
  void check(const SegmentSummary& segment);
  void checkOthers(const OtherRecords& others);
  std::string faultOf(const std::string& name, const tool::Content& listedContent);
  tool::Content contentOf(const std::string& name);
  bool isUnlisted(const std::string& name) const;
  bool isAllListed(const OtherRecords& others) const;
  void addUnlisted();
  void addUnlisted(const std::string& name);

  StreamDirectory& folder;
  const Sync sync;
  Manifest manifest;
  std::set<std::string> names;   // of all files in the folder
  orvane::Receipt receipt;       // of the whole files
  std::set<std::string> listed;  // names of files with a line in the manifest
  std::vector<Damage> damaged;
};

bool UnfinishedStreamFolder::isFinished() {
  const std::vector<std::string> found = folder.names();
  names = {found.begin(), found.end()};
  return has(kManifest);
}

orvane::Receipt UnfinishedStreamFolder::finish(const std::string& queue, const std::string& stream,
                                               const std::string& reason) {
  const ManifestContent found = readManifest(queue, stream);
  for (const SegmentSummary& segment : found.segments) {
    check(segment);
  }
  if (found.receipt) {
    checkOthers(found.others);
  }
  if (found.receipt && damaged.empty() && isAllListed(found.others)) {
    manifest.resume(found.allBytes);
    manifest.finish();
    return *found.receipt;
  }
  manifest.resume(found.bytes);
  if (found.bytes == 0) {
    manifest.begin(queue, stream);
  }
  addUnlisted();
  for (const Damage& damage : damaged) {
    manifest.addDamaged(damage.name, damage.reason);
  }
  receipt.stream = stream;
  receipt.end = damaged.empty() ? orvane::StreamEnd::cutOff : orvane::StreamEnd::broken;
  manifest.finish(receipt, reason);
  return receipt;
}

// Lines that cannot be read now must not count as missing: the manifest would be cut before them.
ManifestContent UnfinishedStreamFolder::readManifest(const std::string& queue,
                                                     const std::string& stream) {
  const std::string part = std::string(kManifest) + kUnfinished;
  if (!has(part)) {
    return {};
  }
  tool::ManifestReader reader(folder.read(part));
  ManifestContent content = readListed(reader, queue, stream);
  if (reader.error() != 0) {
    throwStoreFailed(reader.error(), "read", folder.pathOf(part));
  }
  return content;
}

void UnfinishedStreamFolder::check(const SegmentSummary& segment) {
  if (segment.file.empty()) {
    return count(receipt, segment);
  }
  const std::string part = segment.file + kUnfinished;
  const bool renamed = has(segment.file) || !has(part);
  listed.insert({segment.file, part});
  const std::string fault = faultOf(renamed ? segment.file : part, tool::fileOf(segment).content);
  if (!fault.empty()) {
    damaged.push_back({segment.file, fault});
    return;
  }
  if (!renamed) {
    OutputFile output(&folder, part, sync);
    output.resume(segment.bytes);
    output.finish(segment.file);
  }
  count(receipt, segment);
}

void UnfinishedStreamFolder::checkOthers(const OtherRecords& others) {
  if (others.records == 0) {
    return;
  }
  const std::string fault = faultOf(kOtherRecords, tool::fileOf(others).content);
  if (!fault.empty()) {
    listed.insert(kOtherRecords);
    damaged.push_back({kOtherRecords, fault});
  }
}

std::string UnfinishedStreamFolder::faultOf(const std::string& name,
                                            const tool::Content& listedContent) {
  try {
    return tool::faultOf(contentOf(name), listedContent);
  } catch (const std::exception& e) {
    return e.what();
  }
}

tool::Content UnfinishedStreamFolder::contentOf(const std::string& name) {
  return tool::contentOf(folder.read(name), folder.pathOf(name));
}

bool UnfinishedStreamFolder::isUnlisted(const std::string& name) const {
  const bool isRecords = name == kOtherRecords || name.starts_with(tool::kSegmentPrefix);
  return isRecords && !listed.contains(name);
}

// False if the broker created a file, but the worker died before it learned of it.
bool UnfinishedStreamFolder::isAllListed(const OtherRecords& others) const {
  return std::none_of(names.begin(), names.end(), [&](const std::string& name) {
    return isUnlisted(name) && (name != kOtherRecords || others.records == 0);
  });
}

void UnfinishedStreamFolder::addUnlisted() {
  for (const std::string& name : names) {
    if (isUnlisted(name)) {
      addUnlisted(name);
    }
  }
}

void UnfinishedStreamFolder::addUnlisted(const std::string& name) {
  if (name != kOtherRecords && !name.ends_with(kUnfinished)) {
    damaged.push_back({name, "it is not listed"});
    return;
  }
  try {
    const tool::Content content = contentOf(name);
    manifest.add(tool::UnfinishedFile{name, content.bytes, content.checksum});
  } catch (const std::exception& e) {
    damaged.push_back({name, e.what()});
  }
}

void recover(UnfinishedStream& unfinished, Sync sync, const std::string& who) {
  using namespace orvane::server;
  const Logger log("recovery");
  const std::string queue = doublePercent(unfinished.queue);
  const std::string left =
      "what " + std::string(who == "the server" ? "a dead server" : "a dead worker") + " left";
  try {
    UnfinishedStreamFolder stream(*unfinished.folder, sync);
    if (stream.isFinished()) {
      return;
    }
    const std::string receipt =
        textOf(stream.finish(unfinished.queue, unfinished.stream, who + " died"));
    if (stream.damagedFiles() == 0) {
      log.log(LEVEL_INFO, __func__, 0, "queue %s: finished %s: %s", queue.c_str(), left.c_str(),
              receipt.c_str());
    } else {
      log.log(LEVEL_WARNING, __func__, orvane::kStoreFailed,
              "queue %s: finished %s: %s; damaged files: %zu, see its manifest", queue.c_str(),
              left.c_str(), receipt.c_str(), stream.damagedFiles());
    }
  } catch (const std::exception& e) {
    log.log(LEVEL_ERROR, __func__, orvane::kStoreFailed,
            "queue %s: cannot finish %s, the next start tries again: %s", queue.c_str(),
            left.c_str(), doublePercent(e.what()).c_str());
  }
}

// Removes a folder whose server died before the folder got its final name. It is empty.
void removeUnnamed(const std::string& path) {
  LocalDirectory folder(path);
  if (folder.lock()) {
    rmdir(path.c_str());
  }
}

}  // namespace

LocalUnfinishedStreams::LocalUnfinishedStreams(
    const std::string& store, const std::function<bool(const std::string& queue)>& isDead) {
  static const std::regex streamFolder("(\\.?)(.+)-([0-9]{8}T[0-9]{6}-[0-9]+_[0-9]+)(\\.new)?");
  if (store == kNullStore) {
    return;
  }
  std::error_code ignored;  // a folder that cannot be read is logged when it cannot be finished
  for (const auto& entry : fs::directory_iterator(store)) {
    const std::string name = entry.path().filename();
    std::smatch parts;
    if (!std::regex_match(name, parts, streamFolder) || !entry.is_directory(ignored) ||
        entry.is_symlink(ignored) || fs::exists(entry.path() / kManifest, ignored) ||
        !isDead(parts[2])) {
      continue;
    }
    if (parts[1].length() == 0 && parts[4].length() == 0) {
      found.push_back({entry.path(), parts[2], parts[3]});
    } else if (parts[1].length() > 0 && parts[4].length() > 0) {
      removeUnnamed(entry.path());
    }
  }
}

std::optional<UnfinishedStream> LocalUnfinishedStreams::next() {
  while (!found.empty()) {
    const Found one = std::move(found.back());
    found.pop_back();
    auto folder = std::make_unique<LocalDirectory>(one.path);
    // One that cannot be opened is returned too: the attempt to finish it reports the cause.
    if (folder->lock() || !folder->isOpen()) {
      return UnfinishedStream{one.queue, one.stream, std::move(folder)};
    }
  }
  return std::nullopt;
}

void recoverStreams(UnfinishedStreams& streams, Sync sync, const std::string& who) {
  while (auto stream = streams.next()) {
    recover(*stream, sync, who);
  }
}

}  // namespace orvaned
