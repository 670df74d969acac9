#include "store_format/forward_mark.hpp"

#include <sys/stat.h>

namespace tool {

std::string marksOf(const std::string& store) {
  return store + "/" + kMarks;
}

std::string markOf(const std::string& store, const std::string& id) {
  return marksOf(store) + "/" + id;
}

std::optional<UtcTime> markedAt(const std::string& store, const std::string& id) {
  struct stat status = {};
  if (lstat(markOf(store, id).c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
    return std::nullopt;
  }
  return UtcTime(std::chrono::seconds(status.st_mtim.tv_sec) +
                 std::chrono::milliseconds(status.st_mtim.tv_nsec / 1000000));
}

bool isSafelyForwarded(const std::string& store, const std::string& id, UtcTime now) {
  const auto marked = markedAt(store, id);
  return marked && *marked <= now - kSafeAfter;
}

}  // namespace tool
