#pragma once

#include <string>

namespace tool {

// Sends a file, standard input ("-"), or 256 MiB of its own making (an empty path) through a
// private server, and compares what was stored with the source. Returns the line to print, when
// nothing is left behind any more. Throws Failure, Interrupted.
std::string runDemo(const std::string& path);

}  // namespace tool
