#pragma once

#include <string>

#include "store/output_file.hpp"
#include "store/unfinished_streams.hpp"

namespace orvaned {

// Finishes the streams. Compares each file with its line in the manifest. A whole file gets its
// final name if it does not have it yet; any other is marked as damaged. A file that is not listed
// is not changed, and is marked as unfinished. A stream that is complete keeps its own ending; any
// other ends as cut-off, or as broken if a file is damaged. The reason is that `who` died: "the
// server" or "its worker".
//
// Writes one log line for each stream. A stream that cannot be finished now (disk full, ...) is
// logged too, and left to the next start, as are the remaining streams if the process is ended.
void recoverStreams(UnfinishedStreams& streams, Sync sync, const std::string& who);

}  // namespace orvaned
