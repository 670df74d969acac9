#include "inspect/follow_stream.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <utility>

#include "exit.hpp"
#include "inspect/published_totals.hpp"
#include "shm/shm_names.hpp"
#include "shm/totals.hpp"
#include "store/open_stream.hpp"
#include "store/store_folder.hpp"
#include "store_format/manifest_lines.hpp"
#include "store_format/stream_id.hpp"
#include "transport/totals_requests.hpp"

namespace tool {
namespace {

constexpr int kLookAgainMs = 50;

// Returns the totals of a queue or, if there are none, of a ring that the server at the socket
// serves. Throws Failure.
std::unique_ptr<PublishedTotals> totalsOf(const std::string& queue, const std::string& socket) {
  struct stat status = {};
  if (lstat((kShmFolder + queue).c_str(), &status) == 0) {
    return std::make_unique<PublishedTotals>(queue);
  }
  for (ServedRing& ring : ringsServedAt(socket)) {
    if (ring.name == queue) {
      return std::make_unique<PublishedTotals>(std::move(ring));
    }
  }
  throw Failure(kFailed, "the server at " + socket + " does not serve it: name its --socket");
}

class Follower {
 public:
  Follower(const std::string& folder, const PrintOptions& options,
           const std::optional<std::string>& socket, const Warn& warn)
      : folder(folder), options(options), socket(socket), warn(warn), printer(folder) {}

  void run() {
    while (!hasEnded(folder)) {
      printNew();
      poll(nullptr, 0, kLookAgainMs);
    }
    printRest();
  }

 private:
  // Prints what has come since the last call.
  void printNew() {
    const Fd opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    // Read before the files, which hold what was answered.
    const std::uint64_t answered = answeredNow();
    const auto stream = lookAtOpen(opened);
    if (!stream) {
      return requireFolder(opened);
    }
    head = stream->head;
    if (printListed(*stream) && !stream->unlisted.empty()) {
      // If two segments are not listed yet, the second one is printed when the first one is listed.
      printOpen(stream->unlisted.front().file, answered - std::min(answered, bytesDone));
    }
  }

  // If the file has another name by now, the next look finds it.
  void printOpen(const std::string& file, std::uint64_t bytes) {
    try {
      printer.printOpen(file, bytes);
    } catch (const Failure&) {
      throw;
    } catch (const std::runtime_error&) {
      if (isThere(file)) {
        throw;
      }
    }
  }

  bool isThere(const std::string& file) const {
    struct stat status = {};
    return lstat((folder + "/" + file).c_str(), &status) == 0;
  }

  // Prints the segments that the manifest lists, which have ended. Returns false if the file of one
  // does not have its final name yet.
  bool printListed(const OpenStream& stream) {
    while (done < stream.listed.size()) {
      const SegmentSummary& segment = stream.listed[done];
      if (!segment.file.empty() && !isThere(segment.file)) {
        return false;
      }
      print({segment.number, fileOf(segment), true});
    }
    return true;
  }

  // The stream has ended, so its manifest does not change any more. It also has the checksum of a
  // segment that was not ended.
  void printRest() {
    const Flaws flaws = flawsOf(folder);
    if (!flaws.ofManifest.empty()) {
      complain("the manifest of the stream in " + folder + " is damaged: " + flaws.ofManifest);
    }
    std::size_t index = 0;
    forEachSegment(manifestOf(folder), [&](const ListedSegment& segment) {
      if (index++ >= done) {
        print(segment);
      }
      return true;
    });
    if (!flaws.ofStream.empty()) {
      complain("the stream in " + folder + " is not whole: " + flaws.ofStream);
    }
  }

  void complain(const std::string& flaw) const {
    if (!options.force) {
      throw Failure(kFailed, flaw);
    }
    warn(flaw);
  }

  void print(ListedSegment segment) {
    segment.isWhole = true;
    printSegment(segment, folder, options, printer, warn);
    bytesDone += segment.file.content.bytes;
    ++done;
  }

  // Returns how many bytes of the stream were answered, or 0 if that is not known.
  std::uint64_t answeredNow() {
    if (!totals && !tried && !head.queue.empty()) {
      tried = true;
      const std::string name = nameInId(idOf(folder), head.label);
      try {
        totals = totalsOf(head.queue, socket.value_or("/run/orvaned/" + name + "/socket"));
      } catch (const Failure& failure) {
        warn(std::string("each segment is printed when it has ended: ") + failure.what());
      }
    }
    return totals ? answeredOf(totals->totals(), head.stream) : 0;
  }

  // A stream that has just begun has no manifest yet.
  void requireFolder(const Fd& opened) const {
    if (opened.get() < 0 || !(hasEnded(folder) || parseStreamId(idOf(folder)))) {
      throw Failure(kFailed, noStreamIn(folder));
    }
  }

  const std::string folder;
  const PrintOptions options;
  const std::optional<std::string> socket;
  const Warn& warn;
  SegmentPrinter printer;
  StreamHead head;              // with an empty queue until the manifest has it
  std::size_t done = 0;         // segments that are printed and compared
  std::uint64_t bytesDone = 0;  // their bytes
  std::unique_ptr<PublishedTotals> totals;
  bool tried = false;  // to find them
};

}  // namespace

void followStream(const std::string& folder, const PrintOptions& options,
                  const std::optional<std::string>& socket, const Warn& warn) {
  Follower(folder, options, socket, warn).run();
}

}  // namespace tool
