#include "leases/lease_connection.hpp"

#include <poll.h>
#include <sys/syscall.h>

#include <cerrno>
#include <string_view>
#include <utility>

namespace orvaned {
namespace {

// Linux 6.5 and later have it, the headers of Debian 12 do not.
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

LeaseConnection::LeaseConnection(tool::Fd connected) : socket(std::move(connected)) {
  socklen_t size = sizeof(who);
  getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &who, &size);
  pinProducer();
}

// By number: glibc 2.36 declares pidfd_open() for C only. It may find another process of the same
// number, if that of the producer was given away between its connecting and this call; the system's
// own answer, where there is one, cannot.
void LeaseConnection::pinProducer() {
  int fd = -1;
  socklen_t size = sizeof(fd);
  if (getsockopt(socket.get(), SOL_SOCKET, kPeerPidfd, &fd, &size) == 0) {
    process = tool::Fd(fd);
  } else if (errno == ESRCH || errno == EINVAL) {  // of a process that was waited for
    tooLate = true;
  } else if (who.pid > 0) {
    process = tool::Fd(static_cast<int>(syscall(SYS_pidfd_open, who.pid, 0)));
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

// A producer that is gone takes all that it is sent.
bool LeaseConnection::trySend(const std::string& text) const {
  const ssize_t sent = ::send(socket.get(), text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  return sent >= 0 || (errno != EAGAIN && errno != EINTR && errno != ENOBUFS);
}

}  // namespace orvaned
