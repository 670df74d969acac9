#pragma once

#include <optional>
#include <string>

#include "inspect/print_stream.hpp"

namespace tool {

// Prints a stream while it is stored, and returns when it has ended and all of it is printed. Of
// the segment that is open it prints what was answered, as the server's totals tell: these bytes
// stay, whatever happens, except for a power cut. A segment is compared with its checksum when it
// has ended.
//
// The totals of a ring are at the server's socket; without `socket`, at that of the packaged
// service. Where they cannot be read, warn() gets the reason, and a segment is printed when it has
// ended. Throws Failure if something is damaged, or if the stream does not end as closed.
void followStream(const std::string& folder, const PrintOptions& options,
                  const std::optional<std::string>& socket, const Warn& warn);

}  // namespace tool
