#pragma once

#include <locale>
#include <sstream>

#include "orvane/status.hpp"
#include "ox/errno_exception.hpp"

namespace orvane {

// Joins the pieces to a message and throws it; numbers are plain decimals in every global locale.
// The function is cold and not inline, so that its callers stay small. The pieces are passed by
// value, so that a caller's numbers can stay in registers.
template <typename... Pieces>
[[noreturn, gnu::cold, gnu::noinline]] void fail(ox_status_t status, Pieces... pieces) {
  std::ostringstream message;
  message.exceptions(std::ios_base::badbit);
  message.imbue(std::locale::classic());
  (message << ... << pieces);
  throw Ox_ErrnoException(status, message.str(), "");
}

}  // namespace orvane
