#pragma once

#include <string>

namespace orvane::test {

// In a child that is about to become another user and then the program: a path by which that user
// reaches the program, and LD_LIBRARY_PATH for the libraries of the build, also where it may not
// enter the folders above them.
std::string reachable(const std::string& program);

}  // namespace orvane::test
