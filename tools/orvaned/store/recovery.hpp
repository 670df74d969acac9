#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "store/output_file.hpp"
#include "store/stream_directory.hpp"

namespace orvaned {

// A stream whose server or worker died: a folder of the store with a `manifest.part`, or none,
// instead of a `manifest`. Its folder is locked, so nobody else uses it or finishes it.
struct UnfinishedStream {
  std::string queue;
  std::string stream;
  std::unique_ptr<StreamDirectory> folder;
};

// The source of the streams that are to be finished.
class UnfinishedStreams {
 public:
  virtual ~UnfinishedStreams() = default;

  // Nothing after the last one.
  virtual std::optional<UnfinishedStream> next() = 0;
};

// The unfinished streams of a store whose server is known to have ended; `isDead` tells that by the
// queue's name. An unfinished stream of a running server is simply one that is being written.
class LocalUnfinishedStreams : public UnfinishedStreams {
 public:
  // Throws std::runtime_error when the store cannot be listed.
  LocalUnfinishedStreams(const std::string& store,
                         const std::function<bool(const std::string& queue)>& isDead);

  std::optional<UnfinishedStream> next() override;

 private:
  struct Found {
    std::string path;
    std::string queue;
    std::string stream;
  };

  std::vector<Found> found;  // the last one is the next
};

// Finishes them. What the manifest lists is compared with what is there. A file that is whole gets
// its final name, if that was all it still missed; one that is not is marked as damaged. What is
// not listed stays as it is and is marked as unfinished. A stream that was whole keeps its own
// ending; any other ends as cut-off, or as broken where something is damaged, since `who` died:
// "the server" or "its worker".
//
// One log line a stream. A stream that cannot be finished now (disk full, ...) is logged as well,
// and left to the next start. So is what is left when the process is ended in between.
void recoverStreams(UnfinishedStreams& streams, Sync sync, const std::string& who);

}  // namespace orvaned
