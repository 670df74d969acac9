#include "store/retention.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <tuple>
#include <utility>

#include "exit.hpp"
#include "shm/fd.hpp"
#include "store/store_folder.hpp"
#include "store_format/forward_mark.hpp"
#include "store_format/manifest_reader.hpp"
#include "store_format/manifest_summary.hpp"
#include "store_format/removed_stream.hpp"
#include "store_format/stream_id.hpp"

namespace tool {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kBlock = 512;  // of st_blocks

[[noreturn]] void failToReadStore(const std::string& store, std::error_code error) {
  throw Failure(kFailed, "cannot read the store " + store + ": " + error.message());
}

struct Size {
  std::uint64_t bytes = 0;
  std::uint64_t allocated = 0;
};

// A file that is renamed or removed meanwhile is not counted.
Size sizeOf(const std::string& folder) {
  Size size;
  std::error_code error;
  for (auto entry = fs::directory_iterator(folder, error);
       !error && entry != fs::directory_iterator(); entry.increment(error)) {
    struct stat status = {};
    if (lstat(entry->path().c_str(), &status) == 0) {
      size.bytes += static_cast<std::uint64_t>(status.st_size);
      size.allocated += static_cast<std::uint64_t>(status.st_blocks) * kBlock;
    }
  }
  return size;
}

UtcTime writtenAt(const Fd& file) {
  struct stat status = {};
  fstat(file.get(), &status);
  return UtcTime(std::chrono::seconds(status.st_mtim.tv_sec) +
                 std::chrono::milliseconds(status.st_mtim.tv_nsec / 1000000));
}

void addStream(StoreContent& content, const std::string& store, const std::string& id) {
  const std::string folder = store + "/" + id;
  const Fd manifest(
      open((folder + "/" + kManifest).c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  const bool hasEnded = manifest.get() >= 0 || errno != ENOENT;
  const Size size = sizeOf(folder);
  content.bytes += size.bytes;
  if (!hasEnded) {
    return;
  }
  if (auto summary = readSummary(manifest)) {
    const UtcTime ended = summary->ended ? *summary->ended : writtenAt(manifest);
    content.finished.push_back(
        {id, std::move(summary->receipt), ended, size.bytes, size.allocated});
  } else {
    content.unreadable.push_back(id);
  }
}

std::vector<std::string> hiddenIn(const std::string& store) {
  std::vector<std::string> names;
  std::error_code error;
  for (auto entry = fs::directory_iterator(store, error);
       !error && entry != fs::directory_iterator(); entry.increment(error)) {
    std::error_code ignored;
    const std::string name = entry->path().filename();
    if (isRemovedFolder(name) && fs::is_directory(entry->symlink_status(ignored))) {
      names.push_back(name);
    }
  }
  if (error) {
    failToReadStore(store, error);
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::uint64_t freeIn(const std::string& store) {
  struct statvfs status = {};
  if (statvfs(store.c_str(), &status) != 0) {
    failToReadStore(store, std::error_code(errno, std::generic_category()));
  }
  return std::uint64_t{status.f_bavail} * status.f_frsize;
}

// The content was read from the first and last lines of the manifest. Before a stream is removed
// for what they say, all of them must be as they were written.
bool isWhole(const std::string& manifest) {
  try {
    ManifestReader reader(openStored(manifest), manifest);
    while (reader.next()) {
    }
    return reader.error() == 0 && reader.fault().empty();
  } catch (const std::runtime_error&) {
    return false;
  }
}

}  // namespace

StoreContent storeContent(const std::string& store) {
  StoreContent content;
  content.hidden = hiddenIn(store);
  for (const std::string& id : foldersIn(store)) {
    if (parseStreamId(id)) {
      addStream(content, store, id);
    }
  }
  content.free = freeIn(store);
  std::sort(content.finished.begin(), content.finished.end(), [](const auto& a, const auto& b) {
    return std::tie(a.ended, a.id) < std::tie(b.ended, b.id);
  });
  std::sort(content.unreadable.begin(), content.unreadable.end());
  return content;
}

std::vector<FinishedStream> takeExpired(StoreContent& content, const std::string& store,
                                        const Retention& retention, UtcTime now) {
  std::vector<FinishedStream> expired;
  std::vector<FinishedStream> kept;
  for (FinishedStream& stream : content.finished) {
    const bool isOld = retention.olderThan && stream.ended < now - *retention.olderThan;
    const bool isTooMuch = retention.keepBytes && content.bytes > *retention.keepBytes;
    const bool isFull = retention.keepFree && content.free < *retention.keepFree;
    const bool isOfThisEnd = retention.end.empty() || textOf(stream.receipt.end) == retention.end;
    const bool mayGo =
        isOfThisEnd && (!retention.forwarded || isSafelyForwarded(store, stream.id, now));
    if (!mayGo || !(isOld || isTooMuch || isFull)) {
      kept.push_back(std::move(stream));
    } else if (!isWhole(store + "/" + stream.id + "/" + kManifest)) {
      content.unreadable.push_back(stream.id);
    } else {
      content.bytes -= stream.bytes;
      content.free += stream.allocated;
      expired.push_back(std::move(stream));
    }
  }
  content.finished = std::move(kept);
  return expired;
}

}  // namespace tool
