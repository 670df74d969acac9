#pragma once

#include <locale>
#include <sstream>

#include "orvane/status.hpp"
#include "ox/errno_exception.hpp"

namespace orvane {

// Throws the message that the pieces make, numbers in plain decimal whatever the global locale is.
// Cold and out of line, so that the code in front of a failure stays small; the pieces by value, so
// that a caller's numbers can stay in registers.
template <typename... Pieces>
[[noreturn, gnu::cold, gnu::noinline]] void fail(ox_status_t status, Pieces... pieces) {
  std::ostringstream message;
  message.exceptions(std::ios_base::badbit);
  message.imbue(std::locale::classic());
  (message << ... << pieces);
  throw Ox_ErrnoException(status, message.str(), "");
}

}  // namespace orvane
