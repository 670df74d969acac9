#include "replaced_platform.hpp"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ostream>
#include <utility>

#include "ox/log.hpp"
#include "ox/trace.hpp"

namespace orvane::test::replaced {
namespace {

bool tracing = false;
bool traceThrows = false;
int answered = 0;
int actsAfter = 0;
std::function<void()> action;
std::vector<Call> calls;

// The arguments as text, conversion by conversion: %s, %d and %u are all that the library uses.
std::vector<std::string> argumentsOf(const char* format, va_list list) {
  std::vector<std::string> arguments;
  while ((format = std::strchr(format, '%')) != nullptr) {
    switch (format[1]) {
      case 's':
        arguments.emplace_back(va_arg(list, const char*));
        break;
      case 'd':
        arguments.push_back(std::to_string(va_arg(list, int)));
        break;
      case 'u':
        arguments.push_back(std::to_string(va_arg(list, unsigned int)));
        break;
      default:
        arguments.emplace_back("an unexpected conversion");
    }
    format += 2;
  }
  return arguments;
}

void record(const char* function, int code, const char* format, va_list list) {
  calls.push_back({function, code, format, argumentsOf(format, list)});
}

}  // namespace

std::ostream& operator<<(std::ostream& stream, const Call& call) {
  stream << call.function << '(' << call.code << ", \"" << call.format << '"';
  for (const std::string& argument : call.arguments) {
    stream << ", " << argument;
  }
  return stream << ')';
}

void reset(bool on) {
  tracing = on;
  traceThrows = false;
  answered = 0;
  action = nullptr;
  calls.clear();
}
void duringTraceOn(int call, std::function<void()> what) {
  actsAfter = answered + call;
  action = std::move(what);
}
void throwFromTrace(bool throws) {
  traceThrows = throws;
}
int traceOnCalls() {
  return answered;
}
std::vector<Call> takeCalls() {
  return std::exchange(calls, {});
}

}  // namespace orvane::test::replaced

namespace replaced = orvane::test::replaced;

bool TraceOn() {
  if (++replaced::answered == replaced::actsAfter && replaced::action) {
    replaced::action();
  }
  return replaced::tracing;
}

#define ORVANE_RECORD(FUNCTION, CODE, FORMAT)     \
  va_list list;                                   \
  va_start(list, FORMAT);                         \
  replaced::record(FUNCTION, CODE, FORMAT, list); \
  va_end(list)

void __Trace(const char* format, ...) {
  ORVANE_RECORD("__Trace", 0, format);
  if (replaced::traceThrows) {
    throw 1;
  }
}
void InfoA(int code, const char* format, ...) {
  ORVANE_RECORD("InfoA", code, format);
}
void AuthA(int code, const char* format, ...) {
  ORVANE_RECORD("AuthA", code, format);
}
void WarningA(int code, const char* format, ...) {
  ORVANE_RECORD("WarningA", code, format);
}
void ErrorA(int code, const char* format, ...) {
  ORVANE_RECORD("ErrorA", code, format);
}
