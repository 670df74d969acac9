#pragma once

#include <span>

namespace orvaned {

// THE TABLE of the system calls that a confined process may make. Any other call ends it. Before
// you add one, with its reason, make sure that it opens no path, creates no socket and no process,
// reaches no other process, and does not extend what a descriptor was opened for: an append-only
// file must stay append-only.

// The condition on a call's arguments.
enum class Only {
  any,
  notExecutable,   // memory that is not executable (the protection is argument 2)
  withoutAddress,  // a socket that is already connected (the address is argument 4)
  thisProcess      // the process itself (its number is argument 0)
};

struct AllowedCall {
  constexpr AllowedCall(int number, const char* reason, Only only = Only::any)
      : number(number), only(only), reason(reason) {}

  int number;
  Only only;
  const char* reason;
};

// The calls of every confined process.
std::span<const AllowedCall> workerCalls();

// Further calls of a process until it has opened the one queue that it is to open.
std::span<const AllowedCall> openingCalls();

// Further calls of this build's instrumentation. Empty without sanitizers and coverage.
std::span<const AllowedCall> instrumentationCalls();

}  // namespace orvaned
