#include "store/store_folder.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <system_error>

#include "exit.hpp"
#include "store_format/manifest_lines.hpp"

namespace tool {
namespace {

namespace fs = std::filesystem;

// The packaged service stores into a folder of its own below this one.
constexpr char kStores[] = "/var/lib/orvaned";
constexpr char kEnvironment[] = "ORVANE_STORE";

// Folders that are links count too: a store may be on a disk of its own.
std::vector<std::string> allFoldersIn(const std::string& parent) {
  std::vector<std::string> folders;
  std::error_code error;
  for (auto entry = fs::directory_iterator(parent, error);
       !error && entry != fs::directory_iterator(); entry.increment(error)) {
    std::error_code ignored;
    if (entry->is_directory(ignored)) {
      folders.push_back(entry->path());
    }
  }
  std::sort(folders.begin(), folders.end());
  return folders;
}

[[noreturn]] void failToList(const std::string& store, int error) {
  throw Failure(kFailed,
                "cannot read the store " + store + ": " + std::generic_category().message(error));
}

bool isFolder(int parent, const dirent& entry) {
  struct stat status = {};
  return entry.d_type == DT_DIR ||
         (entry.d_type == DT_UNKNOWN &&
          fstatat(parent, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
          S_ISDIR(status.st_mode));
}

}  // namespace

std::string storeNamed(const std::optional<std::string>& named) {
  if (named) {
    return *named;
  }
  const char* const byEnvironment = std::getenv(kEnvironment);
  if (byEnvironment != nullptr && *byEnvironment != '\0') {
    return byEnvironment;
  }
  return onlyStoreIn(kStores);
}

std::string onlyStoreIn(const std::string& parent) {
  const std::vector<std::string> stores = allFoldersIn(parent);
  if (stores.size() == 1) {
    return stores.front();
  }
  const std::string remedy = std::string(": name one, or set ") + kEnvironment;
  if (stores.empty()) {
    throw Failure(kUsage, "no store is named, and none is in " + parent + remedy);
  }
  std::string list;
  for (const std::string& store : stores) {
    list += (list.empty() ? ": " : ", ") + store;
  }
  throw Failure(kUsage, "no store is named, and several are in " + parent + remedy + list);
}

std::vector<std::string> foldersIn(const std::string& store) {
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(store.c_str()), closedir);
  if (!folder) {
    failToList(store, errno);
  }
  std::vector<std::string> names;
  errno = 0;
  while (const dirent* const entry = readdir(folder.get())) {
    if (entry->d_name[0] != '.' && isFolder(dirfd(folder.get()), *entry)) {
      names.emplace_back(entry->d_name);
    }
    errno = 0;
  }
  if (errno != 0) {
    failToList(store, errno);
  }
  return names;
}

std::string folderOf(const std::string& store, const std::string& id) {
  return store + "/" + id;
}

bool isStreamFolder(const std::string& path) {
  struct stat status = {};
  const std::string manifest = path + "/" + kManifest;
  return lstat(manifest.c_str(), &status) == 0 ||
         lstat((manifest + kUnfinished).c_str(), &status) == 0;
}

std::string idOf(const std::string& folder) {
  const fs::path path = fs::absolute(folder).lexically_normal();
  return path.has_filename() ? path.filename() : path.parent_path().filename();
}

std::string noStreamIn(const std::string& folder) {
  return "no stream is stored in " + folder + ": name a folder with a manifest, such as STORE/ID";
}

}  // namespace tool
