#include "ox/log.hpp"

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <string>

#include "ox/sink.hpp"
#include "ox/trace.hpp"

std::atomic<bool> ox::detail::tracing{false};

namespace {

// Logging must have no effect on the code that logs: errno does not change, and a thread is not
// cancelled while it writes a line. (A write is a cancellation point. The unwinding that starts
// there would end a process whose destructors log.)
class KeepThreadState {
 public:
  KeepThreadState() : savedErrno_(errno) {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState_);
  }
  ~KeepThreadState() {
    pthread_setcancelstate(cancelState_, nullptr);
    errno = savedErrno_;
  }
  KeepThreadState(const KeepThreadState&) = delete;
  KeepThreadState& operator=(const KeepThreadState&) = delete;

 private:
  int savedErrno_;
  int cancelState_ = PTHREAD_CANCEL_ENABLE;
};

std::string lineFor(ox::Kind kind, int code, const char* text) {
  constexpr const char* kNames[] = {"info", "auth", "warning", "error", "trace", "enter", "leave"};
  std::string line = kNames[static_cast<int>(kind)];
  if (kind <= ox::Kind::error) {
    line += " " + std::to_string(code);
  }
  return line + ": " + text + "\n";
}

// Writes the whole line at once, so that the lines of several processes do not mix.
void writeToStandardError(ox::Kind kind, int code, const char* text) {
  const std::string line = lineFor(kind, code, text);
  while (write(STDERR_FILENO, line.data(), line.size()) < 0 && errno == EINTR) {
  }
}

std::atomic<ox::Sink> installedSink{writeToStandardError};

void deliver(ox::Kind kind, int code, const char* text) noexcept {
  try {
    installedSink.load(std::memory_order_acquire)(kind, code, text);
  } catch (...) {
    // A line that cannot be logged must not end its caller.
  }
}

constexpr char kUnformattable[] = "(this format could not be filled in) ";

[[gnu::format(printf, 3, 0)]] void format(ox::Kind kind, int code, const char* format,
                                          va_list arguments) noexcept {
  const KeepThreadState keep;
  char text[1024];
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(text, sizeof text, format, arguments);
  try {
    if (length < 0) {
      deliver(kind, code, (std::string(kUnformattable) + format).c_str());
    } else if (static_cast<std::size_t>(length) < sizeof text) {
      deliver(kind, code, text);
    } else {
      std::string whole(static_cast<std::size_t>(length), '\0');
      std::vsnprintf(whole.data(), whole.size() + 1, format, again);
      deliver(kind, code, whole.c_str());
    }
  } catch (const std::bad_alloc&) {
    deliver(kind, code, length < 0 ? kUnformattable : text);
  }
  va_end(again);
}

}  // namespace

void ox::setSink(Sink sink) {
  installedSink.store(sink != nullptr ? sink : writeToStandardError, std::memory_order_release);
}

void ox::setTracing(bool on) {
  detail::tracing.store(on, std::memory_order_relaxed);
}

void ox::detail::enter(const char* operation) noexcept {
  const KeepThreadState keep;
  deliver(Kind::enter, 0, operation);
}

void ox::detail::leave(const char* operation) noexcept {
  const KeepThreadState keep;
  deliver(Kind::leave, 0, operation);
}

bool TraceOn() {
  return ox::detail::tracing.load(std::memory_order_relaxed);
}

#define ORVANE_LOG(kind, code, text)   \
  va_list arguments;                   \
  va_start(arguments, text);           \
  format(kind, code, text, arguments); \
  va_end(arguments)

void __Trace(const char* text, ...) {
  ORVANE_LOG(ox::Kind::trace, 0, text);
}
void InfoA(int code, const char* text, ...) {
  ORVANE_LOG(ox::Kind::info, code, text);
}
void AuthA(int code, const char* text, ...) {
  ORVANE_LOG(ox::Kind::auth, code, text);
}
void WarningA(int code, const char* text, ...) {
  ORVANE_LOG(ox::Kind::warning, code, text);
}
void ErrorA(int code, const char* text, ...) {
  ORVANE_LOG(ox::Kind::error, code, text);
}
