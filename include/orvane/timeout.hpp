#pragma once

#include "orvane/export.hpp"
#include "orvane/status.hpp"

namespace orvane {

constexpr unsigned int kMinTimeoutSeconds = 1;
constexpr unsigned int kMaxTimeoutSeconds = 86400;  // one day

// Throws Ox_ErrnoException (kStatusInvalidArgument) if the timeout is less than the minimum or more
// than the maximum.
ORVANE_API void validateTimeout(unsigned int timeoutSeconds);

}  // namespace orvane
