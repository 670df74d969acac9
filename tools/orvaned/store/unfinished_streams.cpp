#include "store/unfinished_streams.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include "store/manifest_content.hpp"
#include "store/store_access.hpp"
#include "store_format/removed_stream.hpp"
#include "store_format/stream_id.hpp"

namespace orvaned {
namespace {

namespace fs = std::filesystem;

constexpr std::chrono::seconds kTimeToDie{2};
constexpr std::chrono::milliseconds kBetweenTries{10};

// Removes a folder whose server died before the folder got its final name. It is empty.
void removeUnnamed(const std::string& path) {
  LocalDirectory folder(path);
  if (folder.lock()) {
    rmdir(path.c_str());
  }
}

// Removes a stream whose removal was begun. What cannot be removed now is left to the next start.
void removeHidden(const std::string& path) {
  try {
    tool::removeFolder(path);
  } catch (const std::runtime_error&) {
  }
}

// Returns the name that a folder was to get, if `name` is that of a folder before that.
std::optional<std::string> finalNameOf(const std::string& name) {
  if (name.size() < 2) {
    return std::nullopt;
  }
  const std::string final = name.substr(1, name.rfind('.') - 1);
  return name == unnamedFolderOf(final) ? std::optional(final) : std::nullopt;
}

// The queue that the manifest of an unfinished stream names, or "". A manifest that cannot be read
// now is reported when the stream cannot be finished.
std::string queueOf(const std::string& path) {
  try {
    const std::string part = path + "/" + kManifest + kUnfinished;
    tool::ManifestReader manifest(tool::openStored(part), part);
    tool::StreamHeadParser head;
    for (auto line = manifest.next(); line && head.take(*line); line = manifest.next()) {
    }
    return head.head().queue;
  } catch (const std::runtime_error&) {
    return "";
  }
}

// Another user's server finishes the streams in its own folders.
bool isAnotherUsers(const std::string& path) {
  struct stat status = {};
  return lstat(path.c_str(), &status) == 0 && status.st_uid != geteuid();
}

}  // namespace

LocalUnfinishedStreams::LocalUnfinishedStreams(const std::string& store, const std::string& queue,
                                               const std::string& nameInIds)
    : LocalUnfinishedStreams(
          store, [queue](const std::string& other) { return other != queue; },
          [nameInIds](const std::string& nameAndLabel) {
            return nameAndLabel != nameInIds && !nameAndLabel.starts_with(nameInIds + "-");
          }) {
  for (Found& one : found) {
    one.head.queue = queue;
  }
}

LocalUnfinishedStreams::LocalUnfinishedStreams(const std::string& store, const IsServed& isServed)
    : LocalUnfinishedStreams(store, isServed, isServed) {}

LocalUnfinishedStreams::LocalUnfinishedStreams(const std::string& store, IsServed isServed,
                                               IsServed isNameServed)
    : store(store),
      isServed(std::move(isServed)),
      isNameServed(std::move(isNameServed)),
      giveUpAt(std::chrono::steady_clock::now() + kTimeToDie) {
  if (store == kNullStore) {
    return;
  }
  std::error_code ignored;  // a folder that cannot be read is logged when it cannot be finished
  for (const auto& entry : fs::directory_iterator(store)) {
    const std::string name = entry.path().filename();
    if (!entry.is_directory(ignored) || entry.is_symlink(ignored)) {
      continue;
    }
    if (tool::isRemovedFolder(name)) {
      removeHidden(entry.path());
      continue;
    }
    const auto unnamed = finalNameOf(name);
    const auto id = tool::parseStreamId(unnamed.value_or(name));
    const bool isHidden = name.starts_with('.') && !unnamed;
    if (!id || isHidden) {
      continue;
    }
    if (unnamed) {
      removeUnnamed(entry.path());
      continue;
    }
    // Without its manifest only its id is known. That of a fixed queue's stream is QUEUE-TIME-...
    Found one = {entry.path(), id->nameAndLabel, {.queue = id->nameAndLabel, .stream = id->stream}};
    if (!fs::exists(entry.path() / kManifest, ignored) && isLookedFor(one)) {
      found.push_back(std::move(one));
    }
  }
}

bool LocalUnfinishedStreams::isLookedFor(const Found& one) const {
  const std::string queue = queueOf(one.path);
  return queue.empty() ? !isNameServed(one.nameAndLabel) : !isServed(queue);
}

// A folder that was locked and cannot be opened any more has been moved, maybe with the whole
// store.
bool LocalUnfinishedStreams::isInUse(Found& one, const LocalDirectory& folder) {
  if (!folder.isOpen()) {
    return !one.usedBy.empty();
  }
  if (one.usedBy.empty()) {
    const std::string queue = queueOf(one.path);
    one.usedBy = queue.empty() ? one.head.queue : queue;
  }
  return true;
}

bool LocalUnfinishedStreams::isStoreAway() const {
  std::error_code ignored;
  return store != kNullStore && !fs::exists(store, ignored);
}

std::optional<UnfinishedStream> LocalUnfinishedStreams::next() {
  for (;;) {
    while (!found.empty()) {
      Found one = std::move(found.back());
      found.pop_back();
      auto folder = std::make_unique<LocalDirectory>(one.path);
      if (folder->lock()) {
        return UnfinishedStream{std::move(one.head), std::move(folder)};
      }
      if (isInUse(one, *folder)) {
        if (!folder->isOpen() || isLookedFor(one)) {  // its manifest may tell its queue by now
          locked.push_back(std::move(one));
        }
      } else if (!isAnotherUsers(one.path)) {
        // Returned too: the attempt to finish it reports why it cannot be opened.
        return UnfinishedStream{std::move(one.head), std::move(folder)};
      }
    }
    if (locked.empty() || isLastRound) {
      for (const Found& one : std::exchange(locked, {})) {
        inUse.push_back(one.usedBy);
      }
      return std::nullopt;
    }
    std::this_thread::sleep_for(kBetweenTries);
    isLastRound = std::chrono::steady_clock::now() >= giveUpAt;
    std::swap(found, locked);
  }
}

}  // namespace orvaned
