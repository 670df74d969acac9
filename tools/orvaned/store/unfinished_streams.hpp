#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "store/stream_directory.hpp"
#include "store_format/stream_head.hpp"

namespace orvaned {

// A stream whose server or worker died: its folder has no `manifest`, and maybe a `manifest.part`.
// The folder is locked, so no other process uses or finishes it.
struct UnfinishedStream {
  tool::StreamHead head;  // what is known of it without its manifest
  std::unique_ptr<StreamDirectory> folder;
};

// The source of the streams that are to be finished.
class UnfinishedStreams {
 public:
  virtual ~UnfinishedStreams() = default;

  // Returns nothing after the last one.
  virtual std::optional<UnfinishedStream> next() = 0;
};

// The unfinished streams of a store that no process uses. A stream is locked as long as its worker
// or its broker lives, so one that can be locked was left by dead processes, whatever server they
// belonged to.
class LocalUnfinishedStreams : public UnfinishedStreams {
 public:
  using IsServed = std::function<bool(const std::string& queue)>;

  // Finds those of all queues but the ones that are served: what a worker of these leaves is
  // finished by its own server, which knows why the worker ended. Throws std::runtime_error when
  // the store cannot be listed.
  explicit LocalUnfinishedStreams(
      const std::string& store,
      const IsServed& isServed = [](const std::string&) { return false; });

  // Finds those of one queue. `nameInIds` is the NAME in the ids of its streams; a stream whose
  // manifest does not tell its queue yet is one of them if its id begins so. Throws as above.
  LocalUnfinishedStreams(const std::string& store, const std::string& queue,
                         const std::string& nameInIds);

  // Returns those first that can be locked at once. Waits up to 2 seconds in all for the others:
  // the last process of a dead server may still be about to end.
  std::optional<UnfinishedStream> next() override;

  // The queues of the streams that are in use, once next() has returned nothing.
  const std::vector<std::string>& queuesInUse() const { return inUse; }

  // The store has been moved away since it was listed, and the streams with it.
  bool isStoreAway() const;

 private:
  struct Found {
    std::string path;
    std::string nameAndLabel;  // of its id
    tool::StreamHead head;
    std::string usedBy = {};  // its queue, if it was locked
  };

  LocalUnfinishedStreams(const std::string& store, IsServed isServed, IsServed isNameServed);

  bool isLookedFor(const Found& one) const;
  bool isInUse(Found& one, const LocalDirectory& folder);

  const std::string store;
  const IsServed isServed;
  const IsServed isNameServed;  // of a stream whose queue is not known: is its NAME-LABEL?
  std::vector<Found> found;     // not tried yet in this round
  std::vector<Found> locked;
  std::vector<std::string> inUse;
  bool isLastRound = false;
  const std::chrono::steady_clock::time_point giveUpAt;
};

}  // namespace orvaned
