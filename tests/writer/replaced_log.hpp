#pragma once

#include <functional>
#include <string>

namespace orvane::test {

// This executable's own TraceOn, __Trace and WarningA: while it lives tracing is on, and `onFormat`
// gets the format of every trace line and every warning. It may throw. One at a time.
class ReplacedLog {
 public:
  explicit ReplacedLog(std::function<void(const std::string&)> onFormat);
  ~ReplacedLog();
  ReplacedLog(const ReplacedLog&) = delete;
  ReplacedLog& operator=(const ReplacedLog&) = delete;
};

}  // namespace orvane::test
