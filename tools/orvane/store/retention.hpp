#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <orvane/receipt.hpp>
#include <string>
#include <vector>

#include "shm/utc.hpp"

namespace tool {

// A stream that has ended.
struct FinishedStream {
  std::string id;
  orvane::Receipt receipt;
  UtcTime ended;                // in format 1, when its manifest was written
  std::uint64_t bytes = 0;      // of its files
  std::uint64_t allocated = 0;  // what these take on the disk
};

// The content of a store.
struct StoreContent {
  std::vector<FinishedStream> finished;  // the oldest first, by their end
  std::vector<std::string> unreadable;   // ids of streams whose manifest cannot be read
  std::vector<std::string> hidden;       // folders of streams whose removal was begun
  std::uint64_t bytes = 0;               // of the files of all streams, also of open ones
  std::uint64_t free = 0;                // bytes that this user may still fill on its file system
};

// Throws Failure if the store cannot be read.
StoreContent storeContent(const std::string& store);

// Which streams may be removed: those that a limit here asks for, the oldest first.
struct Retention {
  std::optional<std::chrono::seconds> olderThan;  // remove what ended longer ago
  std::optional<std::uint64_t> keepBytes;         // remove until the store has at most these
  std::optional<std::uint64_t> keepFree;          // remove until so many bytes are free
  std::string end;                                // remove only what ended so; empty: all
  bool forwarded = false;                         // remove only what a cluster has
};

// Takes the streams that are to be removed out of the content of a store. What is left of the
// content is what then remains; a stream whose manifest turns out to be damaged becomes unreadable.
std::vector<FinishedStream> takeExpired(StoreContent& content, const std::string& store,
                                        const Retention& retention, UtcTime now);

}  // namespace tool
