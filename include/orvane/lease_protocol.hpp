#pragma once

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
//   server    "lease NAME"                   NAME is the send queue's; the pair exists now
//          or "refused STATUS REASON"        STATUS is 1000 or more; then the connection ends
//   server    "receipt stream=..."           after each stream that is stored (receipt.hpp)
//          or "failed STATUS REASON"         after each stream that is not stored whole
//
// The producer sends nothing after its request. The lease ends when either side closes the
// connection.
constexpr std::size_t kLongestLeasePacket = 512;
constexpr std::string_view kLeaseRequest = "orvane 1 lease";

// "lease NAME".
struct LeaseGranted {
  std::string queue;  // the send queue's name
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

using LeaseReply = std::variant<LeaseGranted, LeaseRefused, Receipt, StreamFailed>;

// Returns the packet of a reply. Each control character becomes "?", and a packet that is too long
// is cut.
ORVANE_API std::string packetOf(const LeaseReply& reply);

// Returns the reply in a packet, or nothing if the packet does not follow this protocol.
ORVANE_API std::optional<LeaseReply> parseLeaseReply(std::string_view packet);

}  // namespace orvane
