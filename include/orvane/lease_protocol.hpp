#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "orvane/export.hpp"
#include "orvane/receipt.hpp"
#include "ox/status.hpp"

namespace orvane {

// The protocol of leases, for both ends of the connection. A program that only needs a lease uses
// Lease instead. The socket is AF_UNIX, SOCK_SEQPACKET. Each packet is a text of 1 to
// kLongestLeasePacket bytes without control characters.
//
//   producer  "orvane 1 lease"               1 is the version of the protocol
//          or "orvane 1 ring BYTES"          asks for a ring of BYTES bytes in place of queues
//             "... label=TEXT"               names the streams of the lease (escaped_text.hpp)
//          or "orvane 1 totals"              asks for the totals of a ring, and needs no lease
//   server    "lease NAME"                   NAME is the send queue's; the pair exists now
//          or "ring NAME BYTES"              with two files (SCM_RIGHTS): the producer's, the
//                                            server's; ring_reader.hpp makes them
//          or "refused STATUS REASON"        STATUS is 1000 or more; then the connection ends
//   server    "receipt stream=..."           after each stream that is stored (receipt.hpp)
//          or "failed STATUS REASON"         after each stream that is not stored whole
//   server    "totals NAME"                  the first ring that this user may see, in the order of
//                                            their names, with one file (SCM_RIGHTS) of its totals,
//                                            which can only be read
//          or "totals"                       there is none
//
// Words of the form KEY=VALUE may follow a request; a server ignores keys that it does not know. A
// server without rings refuses a request for one with kBadRequest, and the producer may ask again
// for queues. The producer sends nothing after its request. The lease ends when either side closes
// the connection.
//
// "orvane 1 totals after=NAME" asks for the first ring after NAME. Who asks for totals may ask
// again on the same connection once it has read the answer, and so gets one ring after another.
constexpr std::size_t kLongestLeasePacket = 512;
constexpr std::string_view kLeaseRequest = "orvane 1 lease";
constexpr std::size_t kLongestLabel = 128;  // bytes, before it is escaped

// "orvane 1 lease" or "orvane 1 ring BYTES", with or without "label=TEXT".
struct LeaseRequest {
  std::uint64_t ringBytes = 0;  // 0: queues
  std::string label = {};       // empty: none
};

// "orvane 1 totals" or "orvane 1 totals after=NAME".
struct TotalsRequest {
  std::string after;
};

// "lease NAME".
struct LeaseGranted {
  std::string queue;  // the send queue's name
};

// "ring NAME BYTES".
struct RingGranted {
  std::string name;  // of the lease
  std::uint64_t bytes;
};

// "refused STATUS REASON". The reason is a text for people.
struct LeaseRefused {
  ox_status_t status;
  std::string reason;
};

// "failed STATUS REASON".
struct StreamFailed {
  ox_status_t status;
  std::string reason;
};

// "totals NAME", or "totals" if the name is empty.
struct TotalsFound {
  std::string name;  // of the lease
};

using LeaseReply =
    std::variant<LeaseGranted, RingGranted, LeaseRefused, Receipt, StreamFailed, TotalsFound>;

// Is this a label that a request may have? It has at most kLongestLabel bytes and no control
// characters.
ORVANE_API bool isLabel(std::string_view text);

// Returns the packet of a request. Its label must be valid.
ORVANE_API std::string packetOf(const LeaseRequest& request);
ORVANE_API std::string packetOf(const TotalsRequest& request);

// Returns the request in a packet, or nothing if the packet is no such request.
ORVANE_API std::optional<LeaseRequest> parseLeaseRequest(std::string_view packet);
ORVANE_API std::optional<TotalsRequest> parseTotalsRequest(std::string_view packet);

// Returns the packet of a reply. Each control character becomes "?", and a packet that is too long
// is cut.
ORVANE_API std::string packetOf(const LeaseReply& reply);

// Returns the reply in a packet, or nothing if the packet does not follow this protocol.
ORVANE_API std::optional<LeaseReply> parseLeaseReply(std::string_view packet);

}  // namespace orvane
