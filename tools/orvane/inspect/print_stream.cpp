#include "inspect/print_stream.hpp"

#include <fcntl.h>
#include <sys/stat.h>

#include "exit.hpp"
#include "store/open_stream.hpp"
#include "store/store_folder.hpp"
#include "store_format/manifest_lines.hpp"

namespace tool {
namespace {

bool isAsked(std::uint64_t number, const PrintOptions& options) {
  return !options.segment || *options.segment == number;
}

// Fails, or warns, if the manifest of a stream that has ended tells something against the stream.
void requireWhole(const std::string& folder, const PrintOptions& options, const Warn& warn) {
  const Flaws flaws = flawsOf(folder);
  const auto complain = [&](const std::string& what, const std::string& remedy) {
    if (!options.force) {
      throw Failure(kFailed, what + "; --force prints " + remedy);
    }
    warn(what);
  };
  if (!flaws.ofManifest.empty()) {
    complain("the manifest of the stream in " + folder + " is damaged: " + flaws.ofManifest,
             "the segments that it lists");
  }
  if (!flaws.ofStream.empty() && !options.segment) {
    complain("the stream in " + folder + " is not whole: " + flaws.ofStream,
             "what is stored of it");
  }
}

// Returns whether a segment was asked for that is there.
bool printEnded(const std::string& folder, const PrintOptions& options, const Warn& warn) {
  requireWhole(folder, options, warn);
  SegmentPrinter printer(folder);
  bool found = false;
  forEachSegment(manifestOf(folder), [&](const ListedSegment& segment) {
    if (isAsked(segment.number, options)) {
      found = true;
      printSegment(segment, folder, options, printer, warn);
    }
    return true;
  });
  return found;
}

// The line of a segment that has ended is there shortly before its file has its final name.
std::string nameNow(const std::string& folder, const std::string& finalName) {
  struct stat status = {};
  const bool isThere = lstat((folder + "/" + finalName).c_str(), &status) == 0;
  return isThere || finalName.empty() ? finalName : finalName + kUnfinished;
}

// Does the same with what is stored so far of a stream that has not ended.
bool printOpen(const std::string& folder, const PrintOptions& options, const Warn& warn) {
  const auto stream = lookAtOpen(Fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)));
  if (!stream) {
    throw Failure(kFailed, noStreamIn(folder));
  }
  if (!options.force) {
    throw Failure(kFailed, "the stream in " + folder +
                               " has not ended; --follow prints it while it is stored, and --force "
                               "prints what is stored so far");
  }
  warn("the stream in " + folder + " is not whole: it has not ended");
  SegmentPrinter printer(folder);
  bool found = false;
  for (const SegmentSummary& listed : stream->listed) {
    if (isAsked(listed.number, options)) {
      found = true;
      ListedSegment segment = {listed.number, fileOf(listed), true};
      segment.file.name = nameNow(folder, segment.file.name);
      printSegment(segment, folder, options, printer, warn);
    }
  }
  for (const UnlistedSegment& segment : stream->unlisted) {
    if (isAsked(segment.number, options)) {
      found = true;
      SegmentPrinter(folder).printOpen(segment.file, SegmentContent::kAny);
    }
  }
  return found;
}

}  // namespace

void printSegment(const ListedSegment& segment, const std::string& folder,
                  const PrintOptions& options, SegmentPrinter& printer, const Warn& warn) {
  const std::string& file = segment.file.name;
  if (file.empty()) {
    return;
  }
  if (options.force) {
    const std::string fault = printer.printAnyway(segment.file);
    if (!fault.empty()) {
      warn(file + " of the stream in " + folder + " is damaged: " + fault);
    }
    return;
  }
  if (!segment.isWhole) {
    throw Failure(kFailed, file + " of the stream in " + folder +
                               " is not whole: its segment was not ended; --force prints what is "
                               "stored of it");
  }
  printer.print(segment.file);
}

void printStream(const std::string& folder, const PrintOptions& options, const Warn& warn) {
  const bool found =
      hasEnded(folder) ? printEnded(folder, options, warn) : printOpen(folder, options, warn);
  if (options.segment && !found) {
    throw Failure(
        kFailed, "the stream in " + folder + " has no segment " + std::to_string(*options.segment));
  }
}

}  // namespace tool
