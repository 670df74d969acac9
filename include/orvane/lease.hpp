#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "orvane/export.hpp"
#include "orvane/receipt.hpp"
#include "orvane/ring_reader.hpp"
#include "orvane/ring_writer.hpp"
#include "orvane/status.hpp"

namespace orvane {

// How a lease's records reach the server. Every server has queues. A ring is faster, and nothing of
// it is in /dev/shm.
enum class Transport {
  queue,
  ring,
  automatic  // a ring, or a queue where the server has no rings
};

// A queue pair or a ring for this process only, which a server leases at its socket as long as this
// object lives.
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
  // Asks the server that listens at `socketPath` for a pair or a ring, and waits at most `timeout`,
  // which is 1 or more. A ring has `ringBytes` bytes, as ring_reader.hpp describes. The server
  // keeps `label` with each stream of this lease, so that the stream can be found; a label has at
  // most 128 bytes and no control characters, and one that is empty is none. A server that does not
  // know labels gives a lease without. Throws kStatusInvalidArgument for another label;
  // kLeaseNoServer; kStatusTimedOut; kLeaseLost if the server ended meanwhile or has another
  // version of the protocol; or the status and reason of the server's refusal. Nothing is leased
  // then.
  Lease(const std::string& socketPath, unsigned int timeout, Transport transport = Transport::queue,
        std::uint64_t ringBytes = kDefaultRing, const std::string& label = {});

  // Gives the pair back. The server ends a stream that is still open as cut off.
  ~Lease();
  Lease(const Lease&) = delete;
  Lease& operator=(const Lease&) = delete;

  // What this lease has: queue or ring.
  Transport transport() const;

  // The name to give to a ShmWriter. A ring's lease has a name as well, but no queue.
  const std::string& queueName() const;

  // What to give to a RingWriter; null if this lease has a queue.
  const std::shared_ptr<ring::Producer>& ring() const;

  // The connection, for poll() and epoll: it is readable when there is a receipt or the lease has
  // ended. Nothing else may be done with it.
  int fd() const;

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
  std::shared_ptr<ring::Producer> producer;
};

// Returns a ShmWriter or a RingWriter for a lease, so that a program does not have to know which.
// The parameters are those of both. Throws what their constructors throw.
ORVANE_API std::unique_ptr<ChannelWriter> makeWriter(const std::string& name, const Lease& lease,
                                                     unsigned int timeout,
                                                     unsigned int stopTimeout);

}  // namespace orvane
