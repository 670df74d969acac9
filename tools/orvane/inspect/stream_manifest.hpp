#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "store_format/manifest_reader.hpp"

namespace tool {

// The path of a stream's manifest, and whether it is there: the stream has ended then.
std::string manifestOf(const std::string& folder);
bool hasEnded(const std::string& folder);

// A segment that a line of a manifest lists.
struct ListedSegment {
  std::uint64_t number = 0;
  ListedFile file;       // without a name: the segment has no data
  bool isWhole = false;  // its producer ended it, and its file has its final name
};

// Calls visit() for each segment that a manifest, finished or not, lists, until it returns false.
// Throws std::runtime_error if the manifest cannot be read.
void forEachSegment(const std::string& manifest,
                    const std::function<bool(const ListedSegment&)>& visit);

// The reasons why a stream that has ended is not whole, as its manifest shows them.
struct Flaws {
  std::string ofManifest;  // "": it is whole
  std::string ofStream;    // "": its producer closed it
};

Flaws flawsOf(const std::string& folder);

}  // namespace tool
