#include "store/unfinished_streams.hpp"

#include <unistd.h>

#include <filesystem>
#include <regex>
#include <system_error>
#include <thread>
#include <utility>

#include "store/manifest_file.hpp"
#include "store/store_access.hpp"

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

}  // namespace

LocalUnfinishedStreams::LocalUnfinishedStreams(
    const std::string& store, const std::function<bool(const std::string& queue)>& isDead)
    : giveUpAt(std::chrono::steady_clock::now() + kTimeToDie) {
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

bool LocalUnfinishedStreams::lock(LocalDirectory& folder) const {
  while (!folder.lock()) {
    if (std::chrono::steady_clock::now() >= giveUpAt) {
      return false;
    }
    std::this_thread::sleep_for(kBetweenTries);
  }
  return true;
}

std::optional<UnfinishedStream> LocalUnfinishedStreams::next() {
  while (!found.empty()) {
    const Found one = std::move(found.back());
    found.pop_back();
    auto folder = std::make_unique<LocalDirectory>(one.path);
    // One that cannot be opened is returned too: the attempt to finish it reports the cause.
    if (!folder->isOpen() || lock(*folder)) {
      return UnfinishedStream{one.queue, one.stream, std::move(folder)};
    }
  }
  return std::nullopt;
}

}  // namespace orvaned
