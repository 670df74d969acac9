#pragma once

#include <string>

#include "orvane/export.hpp"
#include "orvane/receipt.hpp"
#include "orvane/status.hpp"

namespace orvane {

// The two statuses that only a Lease throws. It also throws kStatusInvalidArgument,
// kStatusTimedOut, and the status of a server's refusal (1000 and up).
constexpr ox_status_t kLeaseNoServer = 900;  // no server listens at this path
constexpr ox_status_t kLeaseLost = 901;      // the server died, or it ended the lease

// A queue pair for this process only, which a server leases at its socket as long as this object
// lives.
//   Lease lease("/run/orvaned/orders/socket", 5);
//   ShmWriter writer("backup", lease.queueName(), 30, 5, false);
//   ... writer.close();
//   Receipt stored = lease.receipt(30);  // the server states what it has stored
//
// The pair's name is never used twice, and only this process's user may open the pair (or this
// user's group, if the server may not change owners). Each side notices when the other one ends.
// When this process ends in any way, the server stores what is queued and removes the pair. When
// the server ends, alive() returns false. Destroy a writer before its lease, because the writer's
// destructor may still send.
//
// Link orvane::lease. A lease owns a socket that is closed on exec. A forked child must not use it.
// One thread uses it at a time. It starts no threads, sends no signals, and signals do not shorten
// its waits. Errors are Ox_ErrnoException. Timeouts are in seconds, at most 86400; a longer one
// throws kStatusInvalidArgument.
class ORVANE_API Lease {
 public:
  // Asks the server that listens at `socketPath` for a pair, and waits at most `timeout`, which is
  // 1 or more. Throws kLeaseNoServer; kStatusTimedOut; kLeaseLost if the server ended meanwhile or
  // has another version of the protocol; or the status and reason of the server's refusal. Nothing
  // is leased then.
  Lease(const std::string& socketPath, unsigned int timeout);

  // Gives the pair back. The server ends a stream that is still open as cut off.
  ~Lease();
  Lease(const Lease&) = delete;
  Lease& operator=(const Lease&) = delete;

  // The name to give to a ShmWriter.
  const std::string& queueName() const;

  // Returns true as long as the server is there and kLeaseLost has not been thrown. Does not block.
  // When it returns false, receipt() may still return receipts that the server sent before.
  bool alive() const;

  // Returns the next receipt, and waits for it at most `timeout`; with 0 it does not wait. There is
  // one receipt for each stream that ended on this pair, in the order of the streams. The server
  // sends it when the stream is in the store. A stream that its writer stopped has
  // StreamEnd::stopped. Throws
  //   kStatusTimedOut, nothing is lost: call again;
  //   the server's status and reason, in place of the receipt of a stream that was not stored
  //     whole;
  //   kLeaseLost, after receipt() has returned every receipt that came.
  Receipt receipt(unsigned int timeout);

 private:
  int connection;
  std::string name;
};

}  // namespace orvane
