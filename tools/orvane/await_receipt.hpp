#pragma once

#include <chrono>

#include "common/receipt.hpp"
#include "polled_writer.hpp"

namespace tool {

// Waits for the receipt of the stream that `writer` just closed. The writer itself may have taken
// the answer that carries it, so after a while an empty batch asks again. Throws Failure when the
// server left or nothing came in time, Ox_ErrnoException when it refused, Interrupted.
Receipt awaitReceipt(PolledWriter& writer, std::chrono::seconds timeout, Interrupt& interrupt);

// The same over a lease's connection, which nobody else reads; kLeaseLost says that the server
// left.
Receipt awaitReceipt(orvane::Lease& lease, std::chrono::seconds timeout, Interrupt& interrupt);

}  // namespace tool
