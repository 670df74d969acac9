#pragma once

#include <atomic>

#include "ox/export.hpp"

extern "C" {

// Returns true while tracing is on. A program that defines it (C linkage) replaces the platform's.
OX_API bool TraceOn();

// Writes one trace line, even while tracing is off: callers check TraceOn() first.
OX_API void __Trace(const char* format, ...) __attribute__((format(printf, 1, 2)));
}

namespace ox::detail {

// The platform's own flag, set by ox::setTracing(). It is a data symbol, not a function, so that
// an AutoTrace costs one load and one branch while tracing is off.
extern OX_API std::atomic<bool> tracing;

OX_API void enter(const char* operation) noexcept;
OX_API void leave(const char* operation) noexcept;

}  // namespace ox::detail

// Writes a line when an operation begins and a line when it ends:
//   AutoTrace scope("open");
// It uses the platform's own flag, not a replaced TraceOn(). If the flag was off at the
// beginning, neither line is written. `operation` must outlive the scope.
class AutoTrace {
 public:
  explicit AutoTrace(const char* operation)
      : marked(ox::detail::tracing.load(std::memory_order_relaxed) ? operation : nullptr) {
    if (__builtin_expect(marked != nullptr, 0)) {
      ox::detail::enter(marked);
    }
  }
  ~AutoTrace() {
    if (__builtin_expect(marked != nullptr, 0)) {
      ox::detail::leave(marked);
    }
  }
  AutoTrace(const AutoTrace&) = delete;
  AutoTrace& operator=(const AutoTrace&) = delete;

 private:
  const char* marked;
};
