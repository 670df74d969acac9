#include "leases/lease_connection.hpp"

#include <poll.h>
#include <sys/syscall.h>

#include <cerrno>
#include <string_view>
#include <utility>

namespace orvaned {
namespace {

// Linux 6.5 and later have it; the headers of Debian 12 do not.
#ifdef SO_PEERPIDFD
constexpr int kPeerPidfd = SO_PEERPIDFD;
#else
constexpr int kPeerPidfd = 77;
#endif

bool isSignalled(int fd, short event) {
  pollfd file = {fd, event, 0};
  return poll(&file, 1, 0) > 0;
}

}  // namespace

LeaseConnection::LeaseConnection(tool::Fd socket) : socket(std::move(socket)) {
  socklen_t size = sizeof(peer);
  getsockopt(this->socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size);
  pinProducer();
}

// SYS_pidfd_open, because glibc 2.36 declares pidfd_open() for C only. It may find another process
// that got the producer's number after the producer connected. SO_PEERPIDFD cannot, so it comes
// first.
void LeaseConnection::pinProducer() {
  int fd = -1;
  socklen_t size = sizeof(fd);
  if (getsockopt(socket.get(), SOL_SOCKET, kPeerPidfd, &fd, &size) == 0) {
    process = tool::Fd(fd);
  } else if (errno == ESRCH || errno == EINVAL) {  // its parent has already waited for it
    tooLate = true;
  } else if (peer.pid > 0) {
    process = tool::Fd(static_cast<int>(syscall(SYS_pidfd_open, peer.pid, 0)));
    tooLate = process.get() < 0 && errno == ESRCH;
  }
  tooLate = tooLate || (process.get() >= 0 && isSignalled(process.get(), POLLIN));
}

LeaseConnection::Request LeaseConnection::readRequest() {
  char packet[orvane::kLongestLeasePacket];
  const ssize_t size = recv(socket.get(), packet, sizeof(packet), MSG_DONTWAIT | MSG_TRUNC);
  if (size < 0) {
    return errno == EAGAIN || errno == EINTR ? Request::none : Request::end;
  }
  if (size == 0) {  // the end, or an empty packet; only at the end has the producer hung up
    return isSignalled(socket.get(), POLLRDHUP) ? Request::end : Request::bad;
  }
  const bool whole = static_cast<std::size_t>(size) <= sizeof(packet);
  return whole && std::string_view(packet, static_cast<std::size_t>(size)) == orvane::kLeaseRequest
             ? Request::lease
             : Request::bad;
}

void LeaseConnection::send(const orvane::LeaseReply& reply) {
  kept.push_back(orvane::packetOf(reply));
  sendKept();
}

void LeaseConnection::sendKept() {
  while (!kept.empty() && trySend(kept.front())) {
    kept.pop_front();
  }
}

// A packet for a producer that has ended counts as sent.
bool LeaseConnection::trySend(const std::string& text) const {
  const ssize_t sent = ::send(socket.get(), text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  return sent >= 0 || (errno != EAGAIN && errno != EINTR && errno != ENOBUFS);
}

}  // namespace orvaned
