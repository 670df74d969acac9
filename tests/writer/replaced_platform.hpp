#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

// This executable's own platform functions: they count and record instead of logging.
namespace orvane::test::replaced {

struct Call {
  std::string function;
  int code;
  std::string format;
  std::vector<std::string> arguments;

  bool operator==(const Call&) const = default;
};
std::ostream& operator<<(std::ostream& stream, const Call& call);

void reset(bool tracing);          // forgets all calls
void throwFromTrace(bool throws);  // lets the next calls of __Trace throw an int
void duringTraceOn(int call, std::function<void()> action);  // 1: the next call of TraceOn
int traceOnCalls();                                          // since reset()
std::vector<Call> takeCalls();

}  // namespace orvane::test::replaced
