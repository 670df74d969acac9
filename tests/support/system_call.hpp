#pragma once

#include <cerrno>
#include <system_error>

namespace orvane::test {

// What a system call returned, unless that says that it failed.
inline int orThrow(int result, const char* call) {
  if (result < 0) {
    throw std::system_error(errno, std::generic_category(), call);
  }
  return result;
}

}  // namespace orvane::test
