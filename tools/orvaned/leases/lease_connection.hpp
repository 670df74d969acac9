#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <deque>
#include <optional>
#include <orvane/lease_protocol.hpp>
#include <string>

#include "shm/fd.hpp"
#include "shm/queue_stats.hpp"

namespace orvaned {

// The server's end of a producer's connection (orvane/lease_protocol.hpp). Nothing here blocks.
class LeaseConnection {
 public:
  // What a producer sends first: everything else, or nothing in time, is refused.
  enum class Request { none, lease, bad, end };

  // The packets that are kept for a producer that does not read, before isFull().
  static constexpr std::size_t kMostKept = tool::kMostUnreadReceipts;

  explicit LeaseConnection(tool::Fd socket);

  Request readRequest();

  // Sends a packet, or keeps it for sendKept() when the producer does not read: it may take its
  // receipts when it likes. Nothing is ever dropped: whoever sends receipts takes no more batches
  // while isFull().
  void send(const orvane::LeaseReply& reply);
  void sendKept();

  std::size_t waiting() const { return kept.size(); }
  bool isFull() const { return kept.size() >= kMostKept; }
  bool drained() const { return kept.empty(); }

  int fd() const { return socket.get(); }

  // Who connected; where the system cannot tell the process, its number is 0.
  const ucred& producer() const { return who; }

  // The process that connected, pinned when the connection was accepted: readable from its end on,
  // whoever else holds the connection, and never another process of the same number. -1 where the
  // process cannot be seen, as from another pid namespace; then the connection alone tells.
  int pidfd() const { return process.get(); }

  // Had that process ended already when the connection was accepted?
  bool cameTooLate() const { return tooLate; }

 private:
  bool trySend(const std::string& text) const;
  void pinProducer();

  tool::Fd socket;
  ucred who = {};
  tool::Fd process;
  bool tooLate = false;
  std::deque<std::string> kept;
};

}  // namespace orvaned
