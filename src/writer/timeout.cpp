#include "orvane/timeout.hpp"

#include "records/failure.hpp"

namespace orvane {

void validateTimeout(unsigned int timeoutSeconds) {
  if (timeoutSeconds < kMinTimeoutSeconds) {
    fail(kStatusInvalidArgument, "Invalid timeout, specified value ", timeoutSeconds,
         " was less than minimum allowed value of ", kMinTimeoutSeconds);
  }
  if (timeoutSeconds > kMaxTimeoutSeconds) {
    fail(kStatusInvalidArgument, "Invalid timeout, specified value ", timeoutSeconds,
         " was more than maximum allowed value of ", kMaxTimeoutSeconds);
  }
}

}  // namespace orvane
