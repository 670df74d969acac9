#include "stream_sender.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <utility>

#include "store_format/checksum.hpp"
#include "store_format/manifest_lines.hpp"
#include "store_format/stored_file.hpp"
#include "store_format/stream_id.hpp"

namespace forward {
namespace {

bool isThere(const std::string& path) {
  struct stat status = {};
  return lstat(path.c_str(), &status) == 0;
}

std::uint64_t sizeOf(const tool::Fd& file, const std::string& path) {
  struct stat status = {};
  if (fstat(file.get(), &status) != 0) {
    tool::failToRead(path, errno);
  }
  return static_cast<std::uint64_t>(status.st_size);
}

void readAt(const tool::Fd& file, const std::string& path, std::uint64_t offset,
            std::span<unsigned char> into) {
  for (std::size_t done = 0; done < into.size();) {
    const ssize_t size = pread(file.get(), into.data() + done, into.size() - done,
                               static_cast<off_t>(offset + done));
    if (size < 0 && errno != EINTR) {
      tool::failToRead(path, errno);
    }
    if (size == 0) {
      throw std::runtime_error("it became shorter while it was read: " + path);
    }
    done += static_cast<std::size_t>(std::max<ssize_t>(size, 0));
  }
}

}  // namespace

bool isDataFile(const std::string& name) {
  return name == tool::kOtherRecords || tool::segmentNumberIn(name).has_value();
}

std::string queueOf(const tool::StreamHead& head, const std::string& id) {
  return head.producer ? tool::nameInId(id, head.label) : head.queue;
}

StreamSender::StreamSender(std::string store, std::string host, ChunkSize chunkSize, Offer offer)
    : store(std::move(store)),
      host(std::move(host)),
      chunkSize(std::move(chunkSize)),
      offer(std::move(offer)) {}

std::string StreamSender::pathOf(const std::string& file) const {
  return store + "/" + name.stream + (file.empty() ? "" : "/" + file);
}

StreamSender::Report StreamSender::send(const std::string& id) {
  Report report;
  name = {host, "", id};
  try {
    if (const auto fault = examine(id)) {
      return {Result::unreadable, *fault, {}};
    }
    chunkBytes = chunkSize();
    const std::string path = pathOf(tool::kManifest);
    tool::ManifestReader manifest(tool::openStored(path), path);
    while (const auto line = manifest.next()) {
      sendListed(*line, report);
    }
    sendManifest();
  } catch (const std::runtime_error&) {
    if (isThere(pathOf(""))) {
      throw;
    }
    return {Result::gone, "", {}};
  }
  return report;
}

// Reads the whole manifest, which may not fit in memory. Returns what is wrong with it.
std::optional<std::string> StreamSender::examine(const std::string& id) {
  const std::string path = pathOf(tool::kManifest);
  tool::ManifestReader manifest(tool::openStored(path), path);
  tool::StreamHeadParser head;
  bool isHead = true;
  while (const auto line = manifest.next()) {
    isHead = isHead && head.take(*line);
  }
  if (manifest.error() != 0) {
    tool::failToRead(path, manifest.error());
  }
  if (!manifest.fault().empty() || !head.isValid()) {
    return manifest.fault().empty() ? "its first lines are missing" : manifest.fault();
  }
  name.queue = queueOf(head.head(), id);
  return std::nullopt;
}

// A file that could not be renamed still ends in .part.
void StreamSender::sendListed(const std::string& line, Report& report) {
  const auto listed = tool::fileIn(line);
  if (!listed) {
    return;
  }
  std::string file = listed->name;
  if (!isDataFile(file)) {
    report.damaged.emplace_back("a line of the manifest names no file of a stream");
    return;
  }
  if (!isThere(pathOf(file)) && isThere(pathOf(file + tool::kUnfinished))) {
    file += tool::kUnfinished;
  }
  if (!isThere(pathOf(file)) && isThere(pathOf(""))) {
    report.damaged.push_back(file + ": it is missing");
    return;
  }
  const std::string fault = sendFile(file, listed->content);
  if (!fault.empty()) {
    report.damaged.push_back(file + ": " + fault);
  }
}

// A file that differs from its line is sent as it is, so that the cluster has what is left of it.
std::string StreamSender::sendFile(const std::string& file, const tool::Content& listed) {
  const std::string path = pathOf(file);
  const tool::Fd opened = tool::openStored(path);
  const std::uint64_t size = sizeOf(opened, path);
  tool::Content found = listed;
  (tool::isCompressed(file) ? found.stored : found.bytes) = size;
  const std::uint32_t checksum = sendContent(opened, file, size, false);
  if (!tool::isCompressed(file)) {
    found.checksum = checksum;  // that of a compressed file is that of its data
  }
  return tool::faultOf(found, listed);
}

void StreamSender::sendManifest() {
  const std::string path = pathOf(tool::kManifest);
  const tool::Fd opened = tool::openStored(path);
  sendContent(opened, tool::kManifest, sizeOf(opened, path), true);
}

// Returns the checksum of the whole file.
std::uint32_t StreamSender::sendContent(const tool::Fd& opened, const std::string& file,
                                        std::uint64_t size, bool isManifest) {
  std::uint32_t all = 0;
  std::uint64_t offset = 0;
  bool isLast = false;
  while (!isLast) {
    const auto length =
        static_cast<std::size_t>(std::min<std::uint64_t>(chunkBytes, size - offset));
    buffer.resize(length);
    readAt(opened, pathOf(file), offset, buffer);
    isLast = offset + length == size;
    const std::string subject =
        isManifest && isLast ? manifestSubject(name) : chunkSubject(name, file, offset, length);
    if (offer({subject, offset, isLast, tool::checksumOf(buffer), buffer})) {
      all = tool::checksumOf(buffer, all);
      offset += length;
    } else {
      chunkBytes = chunkSize();
      isLast = false;
    }
  }
  return all;
}

}  // namespace forward
