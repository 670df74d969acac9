#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <deque>
#include <optional>
#include <orvane/lease_protocol.hpp>
#include <orvane/ring_reader.hpp>
#include <span>
#include <string>

#include "shm/fd.hpp"
#include "shm/totals.hpp"

namespace orvaned {

// The server's end of a producer's connection (orvane/lease_protocol.hpp). Nothing here blocks.
class LeaseConnection {
 public:
  // What the other side has sent so far. Only `lease` in time gets a lease.
  enum class Request { none, lease, totals, bad, end };

  // isFull() from this many packets on, which are kept for a producer that does not read.
  static constexpr std::size_t kMostKept = tool::kMostUnreadReceipts;

  explicit LeaseConnection(tool::Fd socket);

  Request readRequest();

  // The bytes of the ring that was requested; 0 for queues. To be read after Request::lease.
  std::uint64_t ringBytes() const { return request.ringBytes; }

  // The label of the streams; empty: none. To be read after Request::lease.
  const std::string& label() const { return request.label; }

  // The ring after which the next one's totals were requested. To be read after Request::totals.
  const std::string& totalsAfter() const { return totals.after; }

  // Sends a packet, or keeps it for sendKept() if the producer does not read: it may read its
  // receipts at any time. Nothing is ever dropped; instead, a worker receives no more batches while
  // isFull().
  void send(const orvane::LeaseReply& reply);
  void sendKept();

  // Sends the first packet of a ring's lease, with the files that the producer gets. Does
  // nothing if the producer has ended. Throws std::system_error if the system passes no files, as
  // when too many of them are on their way.
  void sendRing(const orvane::RingGranted& reply, const orvane::RingReader& ring);

  // Answers a request for totals with the file of a ring's totals, or with none. Returns false if
  // that is not possible now, or if an earlier answer was not read yet: each answer holds a
  // descriptor of this user's.
  bool sendTotals(const orvane::TotalsFound& reply, int file);

  std::size_t waiting() const { return kept.size(); }
  bool isFull() const { return kept.size() >= kMostKept; }
  bool drained() const { return kept.empty(); }

  int fd() const { return socket.get(); }

  // The process that connected; its number is 0 if the system does not know it.
  const ucred& producer() const { return peer; }

  // A pidfd of the process that connected, opened when the connection was accepted. It is readable
  // after that process's end, even if another process holds the connection, and never stands for
  // another process of the same number. -1 if the process is not visible, as in another pid
  // namespace; then only the end of the connection shows the end of the producer.
  int pidfd() const { return process.get(); }

  // The name of that process's executable file. Empty if this process may not examine that one, as
  // an ordinary user may not another user's, or if it has ended.
  std::string executable() const;

  // Had that process already ended when the connection was accepted?
  bool cameTooLate() const { return tooLate; }

 private:
  bool trySend(const std::string& text) const;
  bool trySend(std::string text, std::span<const int> files) const;
  void pinProducer();

  tool::Fd socket;
  orvane::LeaseRequest request;
  orvane::TotalsRequest totals;
  ucred peer = {};
  tool::Fd process;
  bool tooLate = false;
  std::deque<std::string> kept;
};

}  // namespace orvaned
