#pragma once

#include <string>

#include "orvane/export.hpp"
#include "orvane/receipt.hpp"
#include "orvane/status.hpp"

namespace orvane {

// What a Lease throws besides kStatusInvalidArgument, kStatusTimedOut and what the server refuses
// with (1000 and up).
constexpr ox_status_t kLeaseNoServer = 900;  // there is no server to ask at this path
constexpr ox_status_t kLeaseLost = 901;      // the server ended, or let go of the lease

// A queue pair of one's own, from the server's socket, for as long as this object lives.
//   Lease lease("/run/orvaned/orders/socket", 5);
//   ShmWriter writer("backup", lease.queueName(), 30, 5, false);
//   ... writer.close();
//   Receipt stored = lease.receipt(30);  // the server says that the stream is stored
//
// The pair has a name that never repeats and is open to this process's user only. The connection
// that this object holds is each side's sign of the other's life: when this process ends, however
// it ends, the server stores what is queued and removes the pair; when the server ends, alive()
// says so. So a writer on a lease is destroyed before its lease.
//
// Link orvane::lease. Owns a socket that is closed on exec. A forked child must not use it. One
// thread at a time; no threads and no signals of its own, and signals do not shorten its waits.
// Errors are Ox_ErrnoException; timeouts are in seconds, at most 86400 (else
// kStatusInvalidArgument).
class ORVANE_API Lease {
 public:
  // Asks the server that listens at `socketPath` for a pair, waiting at most `timeout`, 1 or more.
  // Throws kLeaseNoServer, kStatusTimedOut, kLeaseLost when the server ended meanwhile or is
  // another version's, or the status and reason of its refusal; nothing is leased then.
  Lease(const std::string& socketPath, unsigned int timeout);

  // Gives the pair back; the server ends a stream that is still open as cut off.
  ~Lease();
  Lease(const Lease&) = delete;
  Lease& operator=(const Lease&) = delete;

  // The name to give to a ShmWriter.
  const std::string& queueName() const;

  // Is the server still there? Does not block. False from the server's end on, though receipts that
  // it sent before may still be waiting, and false once kLeaseLost was thrown.
  bool alive() const;

  // The next receipt, waiting at most `timeout`; 0 only looks. There is one for each stream that
  // ended on this pair, in their order, sent when the stream is in the store; one that its writer
  // stopped ends as StreamEnd::stopped. Throws kStatusTimedOut, nothing is lost by
  // calling again; the server's status and reason, in place of the receipt of a stream that could
  // not be stored whole; or kLeaseLost, when every receipt that came is taken.
  Receipt receipt(unsigned int timeout);

 private:
  int connection;
  std::string name;
};

}  // namespace orvane
