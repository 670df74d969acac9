#include "store_watch.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <functional>
#include <iterator>
#include <memory>
#include <set>
#include <stdexcept>
#include <system_error>

#include "store_format/manifest_lines.hpp"
#include "store_format/stream_id.hpp"

namespace forward {
namespace {

constexpr std::uint32_t kNewFolders = IN_CREATE | IN_MOVED_TO | IN_ONLYDIR;
constexpr std::uint32_t kManifests = IN_CREATE | IN_MOVED_TO | IN_ONLYDIR | IN_DONT_FOLLOW;

void forEachStream(const std::string& store, const std::function<void(const std::string&)>& use) {
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(store.c_str()), closedir);
  if (!folder) {
    throw std::runtime_error(std::generic_category().message(errno) + ": cannot read the store " +
                             store);
  }
  while (const dirent* const entry = readdir(folder.get())) {
    const std::string name = entry->d_name;
    if (!name.starts_with('.') && (entry->d_type == DT_DIR || entry->d_type == DT_UNKNOWN) &&
        tool::parseStreamId(name)) {
      use(name);
    }
  }
}

// Keeps the first `most` in order.
void keep(std::set<std::string>& ids, const std::string& id, std::size_t most) {
  ids.insert(id);
  if (ids.size() > most) {
    ids.erase(std::prev(ids.end()));
  }
}

}  // namespace

StoreWatch::StoreWatch(const std::string& store, const Marks& marks)
    : store(store), marks(marks), notifications(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
  forEachStream(store, [](const std::string&) {});
  storeWatch = inotify_add_watch(notifications.get(), store.c_str(), kNewFolders);
  if (storeWatch < 0) {
    notifications.reset();
  }
}

bool StoreWatch::hasEnded(const std::string& id) const {
  const std::string manifest = store + "/" + id + "/" + tool::kManifest;
  return faccessat(AT_FDCWD, manifest.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0;
}

StoreWatch::Found StoreWatch::lookAround(std::size_t most, const std::set<std::string>& without) {
  Found found;
  std::set<std::string> ids;
  forEachStream(store, [&](const std::string& id) {
    if (!marks.has(id) && !without.contains(id) && (hasEnded(id) || (watch(id) && hasEnded(id)))) {
      unwatch(id);
      ++found.count;
      keep(ids, id, most);
    }
  });
  found.ids.assign(ids.begin(), ids.end());
  return found;
}

StoreWatch::Found StoreWatch::endedAfter(const std::string& cursor, std::size_t most) const {
  Found found;
  std::set<std::string> ids;
  forEachStream(store, [&](const std::string& id) {
    if (id > cursor && hasEnded(id)) {
      ++found.count;
      keep(ids, id, most);
    }
  });
  found.ids.assign(ids.begin(), ids.end());
  return found;
}

std::vector<std::string> StoreWatch::changes(bool& isIncomplete) {
  std::set<std::string> ended;
  alignas(inotify_event) std::array<char, 16384> buffer = {};
  for (ssize_t size = 0; (size = read(notifications.get(), buffer.data(), buffer.size())) > 0;) {
    for (const char* at = buffer.data(); at < buffer.data() + size;) {
      const auto* const event = reinterpret_cast<const inotify_event*>(at);
      at += sizeof *event + event->len;
      isIncomplete = isIncomplete || (event->mask & IN_Q_OVERFLOW) != 0;
      const std::string name = event->len > 0 ? event->name : "";
      const auto known = open.find(event->wd);
      std::string id;
      if (event->wd == storeWatch && tool::parseStreamId(name) && !name.starts_with('.')) {
        id = name;
        const bool isWatched = watch(id);
        isIncomplete = isIncomplete || (!isWatched && !hasEnded(id));
      } else if (known != open.end() && (event->mask & IN_IGNORED) != 0) {
        watchOfOpen.erase(known->second);
        open.erase(known);
      } else if (known != open.end()) {
        id = known->second;
      }
      if (!id.empty() && hasEnded(id)) {
        unwatch(id);
        ended.insert(id);
      }
    }
  }
  std::erase_if(ended, [&](const std::string& id) { return marks.has(id); });
  return {ended.begin(), ended.end()};
}

bool StoreWatch::watch(const std::string& id) {
  if (notifications.get() < 0) {
    return true;  // the next look finds it
  }
  if (watchOfOpen.contains(id)) {
    return true;
  }
  const int number = inotify_add_watch(notifications.get(), (store + "/" + id).c_str(), kManifests);
  if (number >= 0) {
    open[number] = id;
    watchOfOpen[id] = number;
  }
  return number >= 0;
}

void StoreWatch::unwatch(const std::string& id) {
  const auto known = watchOfOpen.find(id);
  if (known != watchOfOpen.end()) {
    inotify_rm_watch(notifications.get(), known->second);
    open.erase(known->second);
    watchOfOpen.erase(known);
  }
}

}  // namespace forward
