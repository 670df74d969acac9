#include "store/open_stream.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <memory>
#include <utility>

#include "store_format/manifest_reader.hpp"

namespace tool {
namespace {

// While a compressed file takes the place of a plain one, both are there. The plain one has all
// that was answered until it is removed.
std::vector<UnlistedSegment> inOrder(std::vector<UnlistedSegment> segments) {
  std::sort(segments.begin(), segments.end(), [](const auto& a, const auto& b) {
    return std::pair(a.number, isCompressed(a.file)) < std::pair(b.number, isCompressed(b.file));
  });
  const auto end = std::unique(segments.begin(), segments.end(),
                               [](const auto& a, const auto& b) { return a.number == b.number; });
  segments.erase(end, segments.end());
  return segments;
}

// Segments are listed in their order, so those with a number above `last` are not listed.
std::vector<UnlistedSegment> segmentsAfter(std::optional<std::uint64_t> last, const Fd& folder) {
  std::vector<UnlistedSegment> segments;
  const std::unique_ptr<DIR, int (*)(DIR*)> names(
      fdopendir(openat(folder.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)), closedir);
  while (const dirent* const entry = names ? readdir(names.get()) : nullptr) {
    const auto number = segmentNumberIn(entry->d_name);
    struct stat status = {};
    if (number && (!last || *number > *last) &&
        fstatat(folder.get(), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0) {
      segments.push_back({*number, entry->d_name, static_cast<std::uint64_t>(status.st_size)});
    }
  }
  return inOrder(std::move(segments));
}

}  // namespace

std::optional<OpenStream> lookAtOpen(const Fd& folder) {
  const std::string name = std::string(kManifest) + kUnfinished;
  Fd file(openat(folder.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (file.get() < 0) {
    return std::nullopt;
  }
  ManifestReader manifest(std::move(file), name);
  StreamHeadParser head;
  OpenStream stream;
  std::optional<std::uint64_t> last;
  while (const auto line = manifest.next()) {
    if (head.take(*line)) {
      continue;
    }
    if (auto segment = parseSegment(*line)) {
      last = segment->file.empty() ? last : segment->number;
      stream.listed.push_back(std::move(*segment));
    }
  }
  if (head.isValid()) {
    stream.head = head.head();
  }
  stream.unlisted = segmentsAfter(last, folder);
  return stream;
}

}  // namespace tool
