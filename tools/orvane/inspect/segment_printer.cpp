#include "inspect/segment_printer.hpp"

#include <unistd.h>

#include <cerrno>
#include <span>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "exit.hpp"
#include "store_format/checksum.hpp"

namespace tool {
namespace {

void writeOutput(std::span<const unsigned char> bytes) {
  while (!bytes.empty()) {
    const ssize_t size = write(STDOUT_FILENO, bytes.data(), bytes.size());
    if (size >= 0) {
      bytes = bytes.subspan(static_cast<std::size_t>(size));
    } else if (errno != EINTR) {
      throw Failure(kFailed, "cannot write all of it: " + std::generic_category().message(errno));
    }
  }
}

}  // namespace

void SegmentPrinter::print(const ListedFile& listed) {
  const std::string path = folder + "/" + listed.name;
  if (const std::string fault = faultOf(path, listed.content); !fault.empty()) {
    failDamaged(listed, fault);
  }
  copyRest(path);
  const std::string fault = faultOf(std::exchange(printed, {}), listed.content);
  if (!fault.empty()) {
    failDamaged(listed, "it was changed after a part of it was printed: " + fault);
  }
}

std::string SegmentPrinter::printAnyway(const ListedFile& listed) {
  const std::string path = folder + "/" + listed.name;
  try {
    copyRest(path);
  } catch (const Failure&) {
    throw;
  } catch (const std::runtime_error& e) {
    printed = {};
    return e.what();
  }
  return faultOf(std::exchange(printed, {}), listed.content);
}

void SegmentPrinter::printOpen(const std::string& file, std::uint64_t bytes) {
  const std::string path = folder + "/" + file;
  if (openPath != path) {
    openRest = restOf(path);
    openPath = path;
  }
  copy(*openRest, bytes);
}

// Prints what printOpen() has not printed.
void SegmentPrinter::copyRest(const std::string& path) {
  openPath.clear();
  openRest.reset();
  const auto content = restOf(path);
  copy(*content, SegmentContent::kAny);
  printed.stored = content->storedBytes();
}

// Returns what follows the bytes that were printed.
std::unique_ptr<SegmentContent> SegmentPrinter::restOf(const std::string& path) const {
  auto content = std::make_unique<SegmentContent>(openStored(path), path);
  content->skip(printed.bytes);
  return content;
}

// Goes on after what was printed, up to `end` or the end of the file.
void SegmentPrinter::copy(SegmentContent& content, std::uint64_t end) {
  while (printed.bytes < end) {
    const auto bytes = content.next(end - printed.bytes);
    if (bytes.empty()) {
      return;
    }
    writeOutput(bytes);
    printed.bytes += bytes.size();
    printed.checksum = checksumOf(bytes, printed.checksum);
  }
}

void SegmentPrinter::failDamaged(const ListedFile& listed, const std::string& fault) const {
  throw Failure(kFailed, listed.name + " of the stream in " + folder + " is damaged: " + fault +
                             "; --force prints it as it is");
}

}  // namespace tool
