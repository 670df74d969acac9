#pragma once

#include <span>

namespace orvaned {

// THE TABLE of the system calls that a confined process may make. All others end it. To allow
// another one, add it with its reason, and first make sure that it opens no path, makes no socket
// and no process, reaches no other process, and undoes nothing of what a descriptor was opened for:
// an append-only file must stay append-only.

// What is required of a call's arguments.
enum class Only {
  any,
  notExecutable,   // memory that is not executable (the protection is argument 2)
  withoutAddress,  // what is connected already (the address is argument 4)
  thisProcess      // the process itself (its number is argument 0)
};

struct AllowedCall {
  constexpr AllowedCall(int call, const char* why, Only condition = Only::any)
      : number(call), only(condition), reason(why) {}

  int number;
  Only only;
  const char* reason;
};

// What every confined process may do.
std::span<const AllowedCall> workerCalls();

// What a process may do besides until it has opened the one queue that it serves.
std::span<const AllowedCall> openingCalls();

// What this build's instrumentation does besides. Empty but for sanitizers and coverage.
std::span<const AllowedCall> instrumentationCalls();

}  // namespace orvaned
