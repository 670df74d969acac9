#pragma once

#include <atomic>

#include "ox/export.hpp"

extern "C" {

// Is tracing on now? A program that defines it (C linkage) replaces the platform's.
OX_API bool TraceOn();

// One trace line, written whether or not TraceOn() would answer true: callers ask first.
OX_API void __Trace(const char* format, ...) __attribute__((format(printf, 1, 2)));
}

namespace ox::detail {

// The platform's own flag, set by ox::setTracing(). A data symbol, not a function, so that an
// AutoTrace costs one load and one branch while tracing is off.
extern OX_API std::atomic<bool> tracing;

OX_API void enter(const char* operation) noexcept;
OX_API void leave(const char* operation) noexcept;

}  // namespace ox::detail

// Marks entry to and exit from an operation while it is in scope:
//   AutoTrace scope("open");
// Follows the platform's own flag, not a replaced TraceOn(). A scope that was entered untraced is
// not marked when it is left. `operation` must outlive the scope.
class AutoTrace {
 public:
  explicit AutoTrace(const char* operation)
      : operation_(ox::detail::tracing.load(std::memory_order_relaxed) ? operation : nullptr) {
    if (__builtin_expect(operation_ != nullptr, 0)) {
      ox::detail::enter(operation_);
    }
  }
  ~AutoTrace() {
    if (__builtin_expect(operation_ != nullptr, 0)) {
      ox::detail::leave(operation_);
    }
  }
  AutoTrace(const AutoTrace&) = delete;
  AutoTrace& operator=(const AutoTrace&) = delete;

 private:
  const char* operation_;
};
