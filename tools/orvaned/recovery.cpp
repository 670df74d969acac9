#include "recovery.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <optional>
#include <orvane/orvane.hpp>
#include <regex>
#include <set>
#include <system_error>
#include <utility>
#include <vector>

#include "common/stored_file.hpp"
#include "fd.hpp"
#include "log.hpp"
#include "manifest.hpp"
#include "server_status.hpp"

namespace orvaned {
namespace {

namespace fs = std::filesystem;

// What there is of a manifest, up to the first line that is torn or makes no sense.
struct Listed {
  std::uint64_t bytes = 0;  // of the first lines and the segments'; 0: not even the first lines
  std::vector<SegmentSummary> segments;
  OtherRecords others;
  std::uint64_t allBytes = 0;
  std::optional<tool::Receipt> receipt;  // when nothing is missing but the final name
};

Listed readListed(const fs::path& file, const std::string& queue, const std::string& stream) {
  std::ifstream lines(file, std::ios::binary);
  std::string line;
  const auto next = [&] { return std::getline(lines, line) && !lines.eof(); };  // false: torn
  Listed listed;
  for (const std::string& first : {std::string("format=1"), "queue=" + queue, "stream=" + stream}) {
    if (!next() || line != first) {
      return {};
    }
    listed.bytes += line.size() + 1;
  }
  while (next()) {
    const auto segment = parseSegment(line);
    if (!segment) {
      break;
    }
    listed.segments.push_back(*segment);
    listed.bytes += line.size() + 1;
  }
  if (const auto others = parseOthers(line)) {
    listed.others = *others;
  }
  std::optional<tool::Receipt> receipt;
  while (next()) {
    if (const auto found = tool::parseReceipt(line)) {
      receipt = found;
    }
    if (line.starts_with("reason=")) {
      listed.receipt = receipt;
      listed.allBytes = fs::file_size(file);
    }
  }
  return listed;
}

// A stream that a server left when it died.
class LeftStream {
 public:
  LeftStream(fs::path streamFolder, Sync syncMode)
      : folder(std::move(streamFolder)), sync(syncMode), manifest(folder, sync) {}

  // Returns its receipt.
  tool::Receipt finish(const std::string& queue, const std::string& stream);

  std::size_t damagedFiles() const { return damaged.size(); }

 private:
  struct Damage {
    std::string name;
    std::string reason;
  };

  void check(const SegmentSummary& segment);
  void checkOthers(const OtherRecords& others);
  void addUnlisted();
  void addUnlisted(const std::string& name);

  const fs::path folder;
  const Sync sync;
  Manifest manifest;
  tool::Receipt receipt;         // of what is whole
  std::set<std::string> listed;  // names of files
  std::vector<Damage> damaged;
};

tool::Receipt LeftStream::finish(const std::string& queue, const std::string& stream) {
  const Listed found = readListed(folder / "manifest.part", queue, stream);
  for (const SegmentSummary& segment : found.segments) {
    check(segment);
  }
  if (found.receipt) {
    checkOthers(found.others);
  }
  if (found.receipt && damaged.empty()) {
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
  receipt.end = damaged.empty() ? tool::kCutOff : tool::kBroken;
  manifest.finish(receipt, "the server died");
  return receipt;
}

void LeftStream::check(const SegmentSummary& segment) {
  if (segment.file.empty()) {
    return count(receipt, segment);
  }
  const fs::path file = folder / segment.file;
  const fs::path part = file.string() + kUnfinished;
  const bool renamed = fs::exists(file) || !fs::exists(part);
  listed.insert({segment.file, segment.file + kUnfinished});
  const std::string fault = tool::faultOf(renamed ? file : part, {segment.bytes, segment.checksum});
  if (!fault.empty()) {
    damaged.push_back({segment.file, fault});
    return;
  }
  if (!renamed) {
    OutputFile output(part, sync);
    output.resume(segment.bytes);
    output.finish(file);
  }
  count(receipt, segment);
}

void LeftStream::checkOthers(const OtherRecords& others) {
  if (others.records == 0) {
    return;
  }
  const std::uint64_t headers = others.records * orvane::pvk_shm_message_t::getSerializedSize();
  const std::string fault =
      tool::faultOf(folder / kOtherRecords, {headers + others.bytes, others.checksum});
  if (!fault.empty()) {
    listed.insert(kOtherRecords);
    damaged.push_back({kOtherRecords, fault});
  }
}

void LeftStream::addUnlisted() {
  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder)) {
    const std::string name = entry.path().filename();
    if (name == kOtherRecords || name.starts_with("segment-")) {
      names.insert(name);
    }
  }
  for (const std::string& name : names) {
    if (!listed.contains(name)) {
      addUnlisted(name);
    }
  }
}

void LeftStream::addUnlisted(const std::string& name) {
  if (name != kOtherRecords && !name.ends_with(kUnfinished)) {
    damaged.push_back({name, "it is not listed"});
    return;
  }
  try {
    const tool::Content content = tool::contentOf(folder / name);
    manifest.add(tool::UnfinishedFile{name, content.bytes, content.checksum});
  } catch (const std::runtime_error& e) {
    damaged.push_back({name, e.what()});
  }
}

// Two servers that start at once may both find the stream.
class FolderLock {
 public:
  explicit FolderLock(const std::string& path)
      : fd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)),
        taken(fd.get() < 0 || flock(fd.get(), LOCK_EX | LOCK_NB) == 0) {}

  bool isTaken() const { return taken; }

 private:
  const Fd fd;
  const bool taken;  // also where the folder cannot be opened: finishing it tells why
};

void recover(const UnfinishedStream& unfinished, Sync sync) {
  using namespace orvane::server;
  const Logger log("recovery");
  const std::string loggedName = doublePercent(unfinished.queue);
  try {
    const FolderLock lock(unfinished.path);
    if (!lock.isTaken() || fs::exists(unfinished.path + "/manifest")) {
      return;  // another server does, or did, just this
    }
    LeftStream left(unfinished.path, sync);
    const std::string receipt = textOf(left.finish(unfinished.queue, unfinished.stream));
    if (left.damagedFiles() == 0) {
      log.log(LEVEL_INFO, __func__, 0, "queue %s: finished what a dead server left: %s",
              loggedName.c_str(), receipt.c_str());
    } else {
      log.log(
          LEVEL_WARNING, __func__, kStoreFailed,
          "queue %s: finished what a dead server left: %s; damaged files: %zu, see its manifest",
          loggedName.c_str(), receipt.c_str(), left.damagedFiles());
    }
  } catch (const std::exception& e) {
    log.log(LEVEL_ERROR, __func__, kStoreFailed,
            "queue %s: cannot finish what a dead server left, the next start tries again: %s",
            loggedName.c_str(), doublePercent(e.what()).c_str());
  }
}

}  // namespace

std::vector<UnfinishedStream> findUnfinished(
    const std::string& store, const std::function<bool(const UnfinishedStream&)>& isDead) {
  static const std::regex streamFolder("(.+)-([0-9]{8}T[0-9]{6}-[0-9]+_[0-9]+)");
  if (store == kNullStore) {
    return {};
  }
  std::error_code ignored;  // what cannot be looked into cannot be finished: that is logged then
  std::vector<UnfinishedStream> found;
  for (const auto& entry : fs::directory_iterator(store)) {
    const std::string name = entry.path().filename();
    std::smatch parts;
    if (!std::regex_match(name, parts, streamFolder) || !entry.is_directory(ignored) ||
        fs::exists(entry.path() / "manifest", ignored)) {
      continue;
    }
    UnfinishedStream stream{entry.path(), parts[1], parts[2]};
    if (isDead(stream)) {
      found.push_back(std::move(stream));
    }
  }
  return found;
}

void recoverStreams(const std::vector<UnfinishedStream>& streams, Sync sync) {
  for (const UnfinishedStream& stream : streams) {
    recover(stream, sync);
  }
}

}  // namespace orvaned
