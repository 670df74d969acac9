#pragma once

#include <functional>
#include <string>
#include <vector>

#include "output_file.hpp"

namespace orvaned {

// A stream whose server died: a folder of the store with a `manifest.part`, or none, instead of a
// `manifest`.
struct UnfinishedStream {
  std::string path;
  std::string queue;
  std::string stream;
};

// The unfinished streams that `isDead` accepts: those whose server is known to have ended. Where it
// still runs, an unfinished stream is simply one that is being written.
std::vector<UnfinishedStream> findUnfinished(
    const std::string& store, const std::function<bool(const UnfinishedStream&)>& isDead);

// Finishes them. What the manifest lists is compared with what is there. A file that is whole gets
// its final name, if that was all it still missed; one that is not is marked as damaged. What is
// not listed stays as it is and is marked as unfinished. A stream that was whole keeps its own
// ending; any other ends as cut-off, or as broken where something is damaged, since "the server
// died".
//
// One log line a stream. A stream that cannot be finished now (disk full, ...) is logged as well,
// and left to the next start. So is what is left when the process is ended in between.
void recoverStreams(const std::vector<UnfinishedStream>& streams, Sync sync);

}  // namespace orvaned
