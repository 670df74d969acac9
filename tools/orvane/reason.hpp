#pragma once

#include <exception>
#include <string>

namespace tool {

// Returns why something failed, for the command's user: the text of an exception of orvane, the
// system's reason, or a sentence for what failed in a queue. The texts of Boost and of the standard
// library are not used.
std::string reasonOf(const std::exception& e);

}  // namespace tool
