#include "replaced_log.hpp"

#include <utility>

#include "ox/log.hpp"
#include "ox/trace.hpp"

namespace {

std::function<void(const std::string&)> receiver;

void deliver(const char* format) {
  if (receiver) {
    receiver(format);
  }
}

}  // namespace

namespace orvane::test {

ReplacedLog::ReplacedLog(std::function<void(const std::string&)> onFormat) {
  receiver = std::move(onFormat);
}

ReplacedLog::~ReplacedLog() {
  receiver = nullptr;
}

}  // namespace orvane::test

bool TraceOn() {
  return receiver != nullptr;
}
void __Trace(const char* format, ...) {
  deliver(format);
}
void WarningA(int, const char* format, ...) {
  deliver(format);
}
