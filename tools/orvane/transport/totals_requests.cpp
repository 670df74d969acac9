#include "transport/totals_requests.hpp"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <orvane/lease_protocol.hpp>
#include <system_error>
#include <utility>

#include "exit.hpp"

namespace tool {
namespace {

[[noreturn]] void fail(const std::string& what, int error) {
  throw Failure(kFailed, what + ": " + std::generic_category().message(error));
}

// Each call on the connection waits at most 5 seconds.
Fd connectTo(const std::string& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) {
    throw Failure(kUsage, "--socket: a socket's path has 1 to " +
                              std::to_string(sizeof address.sun_path - 1) + " bytes");
  }
  path.copy(address.sun_path, path.size());
  Fd connection(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  const timeval limit = {5, 0};
  setsockopt(connection.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  setsockopt(connection.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  if (connect(connection.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    fail("no server at " + path, errno);
  }
  return connection;
}

// The descriptor that came with a packet, if any.
Fd fileOf(msghdr& message) {
  const cmsghdr* const part = CMSG_FIRSTHDR(&message);
  int file = -1;
  if (part != nullptr && part->cmsg_level == SOL_SOCKET && part->cmsg_type == SCM_RIGHTS) {
    std::memcpy(&file, CMSG_DATA(part), sizeof file);
  }
  return Fd(file);
}

// The server's next ring, if there is one.
std::optional<ServedRing> receiveRingAfter(const std::string& last, const Fd& connection) {
  char text[orvane::kLongestLeasePacket];
  alignas(cmsghdr) unsigned char control[CMSG_SPACE(sizeof(int))];
  iovec bytes = {text, sizeof text};
  msghdr message = {};
  message.msg_iov = &bytes;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  const ssize_t size = recvmsg(connection.get(), &message, MSG_CMSG_CLOEXEC);
  if (size <= 0) {
    fail("the server does not answer", size < 0 ? errno : ECONNRESET);
  }
  Fd file = fileOf(message);
  const std::string_view packet(text, static_cast<std::size_t>(size));
  const auto reply = orvane::parseLeaseReply(packet);
  if (reply && std::holds_alternative<orvane::LeaseRefused>(*reply)) {
    throw Failure(kFailed, "the server refused: " + std::get<orvane::LeaseRefused>(*reply).reason);
  }
  const auto* found = reply ? std::get_if<orvane::TotalsFound>(&*reply) : nullptr;
  const bool isNext =
      found != nullptr &&
      (found->name.empty() ? file.get() < 0 : file.get() >= 0 && found->name > last);
  if (!isNext) {
    throw Failure(kFailed,
                  "the server's answer is not understood: install the same release of both");
  }
  return found->name.empty() ? std::nullopt
                             : std::optional(ServedRing{found->name, std::move(file)});
}

}  // namespace

std::vector<ServedRing> ringsServedAt(const std::string& socketPath) {
  const Fd connection = connectTo(socketPath);
  std::vector<ServedRing> rings;
  for (orvane::TotalsRequest request;; request.after = rings.back().name) {
    const std::string packet = orvane::packetOf(request);
    if (send(connection.get(), packet.data(), packet.size(), MSG_NOSIGNAL) < 0) {
      fail("cannot ask the server", errno);
    }
    auto ring = receiveRingAfter(request.after, connection);
    if (!ring) {
      return rings;
    }
    rings.push_back(std::move(*ring));
  }
}

}  // namespace tool
