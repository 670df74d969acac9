#pragma once

#include <string>

namespace orvane {

// Returns the only socket FOLDER/*/socket. Throws kLeaseNoServer if there is none, or if there are
// several; the text lists them.
std::string onlySocketIn(const std::string& folder);

}  // namespace orvane
