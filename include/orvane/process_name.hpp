#pragma once

namespace orvane {

// The server's name in messages. An array, because a string object could be destroyed before the
// last writer that names it.
constexpr char OrvanedProcessName[] = "orvaned";

}  // namespace orvane
