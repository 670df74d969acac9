#pragma once

#include <string>

namespace tool {

// Prints what a capture, a file with one batch, or a stored stream's folder holds; "-" is a capture
// or a batch on standard input. Throws Failure after the last line when something in it is broken.
void dump(const std::string& path, bool json);

}  // namespace tool
