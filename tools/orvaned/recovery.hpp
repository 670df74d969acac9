#pragma once

#include <string>

#include "output_file.hpp"

namespace orvaned {

// Finishes the streams of this queue that a server left behind when it died: folders of the store
// with a `manifest.part`, or none, instead of a `manifest`. Nobody may be writing them: call it as
// the owner of the queue.
//
// What the manifest lists is compared with what is there. A file that is whole gets its final name,
// if that was all it still missed; one that is not is marked as damaged. What is not listed stays
// as it is and is marked as unfinished. A stream that was whole keeps its own ending; any other
// ends as cut-off, or as broken where something is damaged, since "the server died".
//
// One log line a stream. A stream that cannot be finished now (disk full, ...) is logged as well,
// and left to the next start.
void recoverStreams(const std::string& store, const std::string& queue, Sync sync);

}  // namespace orvaned
