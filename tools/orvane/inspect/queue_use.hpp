#pragma once

#include <chrono>
#include <string>

#include "interrupt.hpp"
#include "shm/fd.hpp"

namespace tool {

// A queue with a fixed name carries one stream at a time: if two producers send at once, both lose
// their streams.

struct QueueUseOptions {
  unsigned int waitSeconds = 0;  // how long to wait for another sender
  bool takeOver = false;         // cut off a stream whose producer holds no lock
};

// Makes this process the only sender of the queue for as long as the returned file is open. Another
// sender is found by its lock on the queue's file, which only a process that may use the queue can
// hold, and a producer that does not lock by the open stream in the server's totals. Throws Failure
// (kNothingSent) if the queue is in use for longer than that, or if its server is dead;
// Interrupted. If the file cannot be opened, it returns none: attaching to the queue shows the
// reason.
Fd becomeOnlySender(const std::string& queue, const QueueUseOptions& options, Interrupt& interrupt);

}  // namespace tool
