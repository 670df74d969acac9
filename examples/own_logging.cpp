// This program writes the library's log lines itself. A program that only needs whole lines passes
// a function to ox::setSink() instead.

#include <cstdarg>
#include <cstdio>
#include <orvane/orvane.hpp>

namespace {

void write(const char* level, int code, const char* format, va_list arguments) {
  std::printf("[%s %d] ", level, code);
  std::vprintf(format, arguments);
  std::puts("");
}

}  // namespace

#define OWN_LEVEL(function, level)                   \
  void function(int code, const char* format, ...) { \
    va_list arguments;                               \
    va_start(arguments, format);                     \
    write(level, code, format, arguments);           \
    va_end(arguments);                               \
  }

// The library also uses these functions, because the loader finds the program's definitions before
// the platform's.
OWN_LEVEL(InfoA, "info")
OWN_LEVEL(AuthA, "auth")
OWN_LEVEL(WarningA, "warning")
OWN_LEVEL(ErrorA, "error")

int main() {
  const orvane::server::Logger log("orders");
  log.log(orvane::server::LEVEL_INFO, __func__, 0, "%d crates of %s", 14, "oranges");
  log.log(orvane::server::LEVEL_ERROR, __func__, 28, "no room for the 15th");
}
