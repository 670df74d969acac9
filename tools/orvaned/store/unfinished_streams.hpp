#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "store/stream_directory.hpp"

namespace orvaned {

// A stream whose server or worker died: its folder has no `manifest`, and maybe a `manifest.part`.
// The folder is locked, so no other process uses or finishes it.
struct UnfinishedStream {
  std::string queue;
  std::string stream;
  std::unique_ptr<StreamDirectory> folder;
};

// The source of the streams that are to be finished.
class UnfinishedStreams {
 public:
  virtual ~UnfinishedStreams() = default;

  // Returns nothing after the last one.
  virtual std::optional<UnfinishedStream> next() = 0;
};

// The unfinished streams of a store whose server has ended; `isDead` decides that by the queue's
// name. An unfinished stream of a running server is still being written, and its folder is locked.
class LocalUnfinishedStreams : public UnfinishedStreams {
 public:
  // Throws std::runtime_error when the store cannot be listed.
  LocalUnfinishedStreams(const std::string& store,
                         const std::function<bool(const std::string& queue)>& isDead);

  // Waits up to 2 seconds in all for locked folders: the last process of a dead server may still be
  // about to end.
  std::optional<UnfinishedStream> next() override;

 private:
  struct Found {
    std::string path;
    std::string queue;
    std::string stream;
  };

  bool lock(LocalDirectory& folder) const;

  std::vector<Found> found;  // the last one is the next
  const std::chrono::steady_clock::time_point giveUpAt;
};

}  // namespace orvaned
