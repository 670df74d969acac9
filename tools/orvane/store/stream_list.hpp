#pragma once

#include <vector>

#include "store/stored_stream.hpp"

namespace tool {

// Prints streams for people, with their hosts if they are those of a cluster. What is not known
// is "-".
void printTable(const std::vector<StoredStream>& streams);

// Prints them as JSON, one object a line. What is not known is null. A stream of a cluster also has
// its host.
void printLines(const std::vector<StoredStream>& streams);

}  // namespace tool
