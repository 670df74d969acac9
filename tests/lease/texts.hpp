#pragma once

#include <string>

namespace orvane::test {

constexpr unsigned int kLong = 60;  // seconds; nothing in these tests takes so long

// A receipt, where it does not matter which.
inline const char kShortReceipt[] = "receipt stream=x records=1 bytes=2 segments=1 end=closed";

inline const char kLost[] = "The server ended the lease without a reason: it died or was stopped";

inline std::string timedOut(const std::string& seconds) {
  return "Timed out after waiting " + seconds +
         "s for the server's answer: it is busy or was stopped";
}

inline std::string unexpected(const std::string& said) {
  return "Unexpected reply \"" + said +
         "\" (lease protocol 1): client and server versions differ; install the same release of "
         "both";
}

}  // namespace orvane::test
