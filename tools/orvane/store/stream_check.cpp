#include "store/stream_check.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "shm/fd.hpp"
#include "store/store_folder.hpp"
#include "store_format/stored_file.hpp"
#include "store_format/stream_id.hpp"

namespace tool {
namespace {

namespace fs = std::filesystem;

constexpr char kNotFinished[] =
    "it is not finished: its server died; the next orvaned with this store finishes it";
constexpr char kMissing[] = "it is missing";
constexpr char kNotListed[] = "the manifest does not list it";

std::set<std::string> namesIn(const std::string& folder) {
  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder)) {
    names.insert(entry.path().filename());
  }
  return names;
}

// Does a process store this stream, or finish it? Such a process holds the folder's lock.
bool isInUse(const std::string& folder) {
  const Fd opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  return opened.get() >= 0 && flock(opened.get(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

bool isThere(const std::string& folder) {
  struct stat status = {};
  return lstat(folder.c_str(), &status) == 0;
}

bool isSegment(const std::string& name) {
  return name.starts_with(kSegmentPrefix) && !name.ends_with(kUnfinished);
}

// A server that died has left a part of the manifest, or had not finished any file.
bool mayBeUnfinished(const std::set<std::string>& names) {
  return names.contains(std::string(kManifest) + kUnfinished) ||
         std::none_of(names.begin(), names.end(), isSegment);
}

std::vector<ListedFile> filesOf(const Manifest& manifest) {
  std::vector<ListedFile> files;
  for (const SegmentSummary& segment : manifest.segments) {
    if (!segment.file.empty()) {
      files.push_back(fileOf(segment));
    }
  }
  if (manifest.others && manifest.others->records > 0) {
    files.push_back(fileOf(*manifest.others));
  }
  for (const UnfinishedFile& unfinished : manifest.unfinished) {
    files.push_back(fileOf(unfinished));
  }
  return files;
}

// What the receipt must say if the lines are right. The file of a segment whose server died may be
// damaged; it is not counted then.
orvane::Receipt sumOf(const Manifest& manifest) {
  orvane::Receipt sum = manifest.ending.receipt;
  sum.records = manifest.others ? manifest.others->records : 0;
  sum.bytes = manifest.others ? manifest.others->bytes : 0;
  sum.segments = 0;
  for (const SegmentSummary& segment : manifest.segments) {
    sum.records += segment.records;
    sum.bytes += segment.bytes;
    sum.segments += segment.bytes > 0 ? 1 : 0;
  }
  return sum;
}

// A server that cannot rename a segment's file breaks the stream, and the reason names the file.
bool wasNotRenamed(const std::string& partName, const StreamEnding& ending) {
  return ending.receipt.end == orvane::StreamEnd::broken &&
         ending.reason.find(partName) != std::string::npos;
}

}  // namespace

StreamCheck::StreamCheck(const std::string& folder) : found{.folder = folder, .id = idOf(folder)} {
  try {
    check();
  } catch (const fs::filesystem_error& e) {
    find("", e.code().message() + ": cannot read " + found.folder);
  } catch (const std::runtime_error& e) {
    find(kManifest, e.what());
  }
}

// A stream may end meanwhile: its folder is unlocked after its manifest has got its name.
void StreamCheck::check() {
  std::set<std::string> names = namesIn(found.folder);
  if (!names.contains(kManifest)) {
    found.isOpen = isInUse(found.folder);
    if (found.isOpen) {
      return;
    }
    names = namesIn(found.folder);
  }
  if (names.contains(kManifest)) {
    return checkManifest(std::move(names));
  }
  find(kManifest, mayBeUnfinished(names) ? kNotFinished : kMissing);
}

void StreamCheck::checkManifest(std::set<std::string> names) {
  std::string fault;
  const auto manifest = readManifest(found.folder + "/" + kManifest, fault);
  if (manifest) {
    found.format = manifest->head.format;
    found.receipt = manifest->ending.receipt;
    fault = contradictionIn(*manifest);
  }
  if (!fault.empty()) {
    return find(kManifest, fault + "; the other files were not checked");
  }
  names.erase(kManifest);
  list(*manifest, names);
  found.files = listed.size();
  for (const std::string& name : names) {
    find(name, kNotListed);
  }
}

// Returns how a manifest contradicts itself or the folder's name, or "". A stream may have been
// moved to a folder of another name.
std::string StreamCheck::contradictionIn(const Manifest& manifest) const {
  const StreamHead& head = manifest.head;
  const auto parts = parseStreamId(found.id);
  if (parts && parts->stream != head.stream) {
    return "it is that of stream " + head.stream;
  }
  if (head.format != kFirstFormat) {
    return "";  // its checksum was right
  }
  const orvane::Receipt& receipt = manifest.ending.receipt;
  if (receipt.stream != head.stream) {
    return "its receipt is that of stream " + receipt.stream;
  }
  if (parts && parts->nameAndLabel != head.queue) {
    return "it is that of queue " + head.queue;
  }
  const orvane::Receipt sum = sumOf(manifest);
  return !manifest.damaged.empty() || textOf(sum) == textOf(receipt)
             ? ""
             : "its lines give \"" + textOf(sum) + "\"";
}

// Takes what the manifest lists from the names in the folder, so that the rest is not listed.
void StreamCheck::list(const Manifest& manifest, std::set<std::string>& names) {
  std::set<std::string> known;
  for (const DamagedFile& damaged : manifest.damaged) {
    find(damaged.file, "it was damaged when a server finished the stream: " + damaged.reason);
    known.insert(damaged.file);
    names.erase(damaged.file);
    names.erase(damaged.file + kUnfinished);
  }
  for (ListedFile& file : filesOf(manifest)) {
    if (known.contains(file.name)) {
      continue;
    }
    const std::string part = file.name + kUnfinished;
    if (!names.contains(file.name) && names.contains(part) &&
        wasNotRenamed(part, manifest.ending)) {
      file.name = part;
    }
    if (names.erase(file.name) > 0) {
      listed.push_back(std::move(file));
    } else {
      find(file.name, kMissing);
    }
  }
}

void StreamCheck::find(std::string file, std::string fault) {
  found.faults.push_back({std::move(file), std::move(fault)});
}

std::string StreamCheck::compare(std::size_t number, std::span<unsigned char> block,
                                 const std::function<void(std::size_t)>& afterRead) const {
  const ListedFile& file = listed[number];
  const std::string path = found.folder + "/" + file.name;
  try {
    Fd opened = openStored(path);
    struct stat status = {};
    if (fstat(opened.get(), &status) != 0) {
      failToRead(path, errno);
    }
    const auto size = static_cast<std::uint64_t>(status.st_size);
    Content content = file.content;
    (isCompressed(path) ? content.stored : content.bytes) = size;
    if (content == file.content) {  // another size needs no reading
      content = contentOf(std::move(opened), path, block, afterRead);
    }
    return faultOf(content, file.content);
  } catch (const std::runtime_error& e) {
    return e.what();
  }
}

void StreamCheck::keep(std::size_t number, const std::string& fault) {
  if (!fault.empty()) {
    faults.emplace(number, fault);
  }
}

// A stream that is being removed loses its name first, so that nothing is missing under that name.
StreamReport StreamCheck::report() {
  for (const auto& [number, fault] : faults) {
    find(listed[number].name, fault);
  }
  found.isRemoved = !found.faults.empty() && !isThere(found.folder);
  return std::move(found);
}

}  // namespace tool
