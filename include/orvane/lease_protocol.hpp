#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "orvane/export.hpp"
#include "orvane/receipt.hpp"
#include "ox/status.hpp"

namespace orvane {

// The protocol of leases, for both ends of the connection; a program that only wants a lease uses
// Lease. The socket is AF_UNIX, SOCK_SEQPACKET: each message is one packet of text, of 1 to
// kLongestLeasePacket bytes, none of them a control character.
//
//   producer  "orvane 1 lease"               1 is the version of the protocol
//   server    "lease NAME"                   NAME: the send queue's; the pair exists now
//          or "refused STATUS REASON"        STATUS: 1000 or more; then the connection ends
//   server    "receipt stream=..."           after each stream (receipt.hpp)
//          or "failed STATUS REASON"         in place of a receipt: not all of it is stored
//
// The producer sends nothing after its request. The end of the connection, from either side, ends
// the lease.
constexpr std::size_t kLongestLeasePacket = 512;
constexpr std::string_view kLeaseRequest = "orvane 1 lease";

struct LeaseGranted {
  std::string queue;
};

struct LeaseRefused {
  ox_status_t status;
  std::string reason;
};

struct StreamFailed {
  ox_status_t status;
  std::string reason;
};

using LeaseReply = std::variant<LeaseGranted, LeaseRefused, Receipt, StreamFailed>;

// The packet of a reply. A control character in a reason becomes "?"; what is too long is cut.
ORVANE_API std::string packetOf(const LeaseReply& reply);

// Nothing when a server of this version cannot have sent the packet.
ORVANE_API std::optional<LeaseReply> parseLeaseReply(std::string_view packet);

}  // namespace orvane
