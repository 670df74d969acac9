#include "fetch/received_stream.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "chunk.hpp"
#include "shm/fd.hpp"
#include "store_format/checksum.hpp"
#include "store_format/manifest_lines.hpp"
#include "stream_sender.hpp"

namespace forward {
namespace {

namespace fs = std::filesystem;

constexpr char kNew[] = ".new";

[[noreturn]] void fail(int error, const std::string& action, const std::string& path) {
  throw std::runtime_error(std::generic_category().message(error) + ": cannot " + action + " " +
                           path);
}

// A file of an earlier attempt, complete or not.
bool mayBeReplaced(const std::string& name) {
  return isDataFile(name) || (name.starts_with('.') && name.ends_with(kNew));
}

}  // namespace

ReceivedStream::ReceivedStream(std::string path) : folder(std::move(path)) {
  if (mkdir(folder.c_str(), 0777) != 0 && errno != EEXIST) {
    fail(errno, "create", folder);
  }
  std::error_code error;
  for (auto entry = fs::directory_iterator(folder, error);
       !error && entry != fs::directory_iterator(); entry.increment(error)) {
    if (!mayBeReplaced(entry->path().filename())) {
      throw std::runtime_error("the folder " + folder + " is in use: it has " +
                               entry->path().filename().string() + "; name another one");
    }
  }
  if (error) {
    fail(error.value(), "read", folder);
  }
}

std::optional<ReceivedStream::Part> ReceivedStream::partOf(const ChunkName& name,
                                                           const std::string& offset,
                                                           const std::string& checksum, bool isLast,
                                                           std::span<const unsigned char> data,
                                                           std::string& fault) {
  Part part = {name.file, name.offset, isLast || name.endsManifest, data};
  const auto length = name.endsManifest ? data.size() : name.length;
  if (name.endsManifest) {
    const bool isNumber = !offset.empty() && offset.size() < 19 &&
                          offset.find_first_not_of("0123456789") == std::string::npos;
    part.offset = isNumber ? std::stoull(offset) : 0;
  }
  if (offset != std::to_string(part.offset)) {
    fault = "its offset is '" + offset + "'";
  } else if (length != data.size()) {
    fault = "it has " + std::to_string(data.size()) + " bytes";
  } else if (tool::checksumText(tool::checksumOf(data)) != checksum) {
    fault = "its checksum is not '" + checksum + "'";
  } else if (!isDataFile(name.file) && name.file != tool::kManifest) {
    fault = "it belongs to no file of a stream";
  } else {
    return part;
  }
  return std::nullopt;
}

bool ReceivedStream::take(const Part& part) {
  write(part);
  writtenBytes += part.data.size();
  File& file = open[part.file];
  const std::uint64_t end = part.offset + part.data.size();
  add(file, part.offset, end);
  if (part.isLast) {
    file.size = end;
  }
  if (part.file == tool::kManifest || !isComplete(file)) {
    return false;
  }
  publish(part.file);
  open.erase(part.file);
  ++completeFiles;
  return true;
}

std::vector<std::string> ReceivedStream::conclude() {
  const auto manifest = open.find(tool::kManifest);
  if (manifest != open.end() && isComplete(manifest->second)) {
    publish(manifest->first);
    open.erase(manifest);
    ++completeFiles;
  }
  std::vector<std::string> incomplete;
  for (const auto& [name, file] : open) {
    incomplete.push_back(name);
  }
  return incomplete;
}

// Joins a range with those that it touches.
void ReceivedStream::add(File& file, std::uint64_t begin, std::uint64_t end) {
  auto next = file.ranges.upper_bound(begin);
  if (next != file.ranges.begin() && std::prev(next)->second >= begin) {
    --next;
    begin = next->first;
  }
  while (next != file.ranges.end() && next->first <= end) {
    end = std::max(end, next->second);
    next = file.ranges.erase(next);
  }
  file.ranges[begin] = end;
}

bool ReceivedStream::isComplete(const File& file) {
  return file.size && file.ranges.size() == 1 && file.ranges.begin()->first == 0 &&
         file.ranges.begin()->second == *file.size;
}

std::string ReceivedStream::newPathOf(const std::string& file) const {
  return folder + "/." + file + kNew;
}

// A file that an earlier attempt has left is emptied with its first part.
void ReceivedStream::write(const Part& part) const {
  const std::string path = newPathOf(part.file);
  const int truncate = open.contains(part.file) ? 0 : O_TRUNC;
  const tool::Fd file(
      ::open(path.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | truncate, 0666));
  if (file.get() < 0) {
    fail(errno, "write", path);
  }
  for (std::size_t done = 0; done < part.data.size();) {
    const ssize_t size = pwrite(file.get(), part.data.data() + done, part.data.size() - done,
                                static_cast<off_t>(part.offset + done));
    if (size < 0 && errno != EINTR) {
      fail(errno, "write", path);
    }
    done += static_cast<std::size_t>(std::max<ssize_t>(size, 0));
  }
}

void ReceivedStream::publish(const std::string& file) const {
  const std::string path = folder + "/" + file;
  if (std::rename(newPathOf(file).c_str(), path.c_str()) != 0) {
    fail(errno, "write", path);
  }
}

}  // namespace forward
