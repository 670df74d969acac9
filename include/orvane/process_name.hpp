#pragma once

namespace orvane {

// The server's name in the texts of exceptions. It is an array, because a string object could be
// destroyed before the last writer that uses it.
constexpr char OrvanedProcessName[] = "orvaned";

}  // namespace orvane
