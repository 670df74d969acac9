#include "leases/lease_connection.hpp"

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string_view>
#include <system_error>
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

// The number stands for the producer as long as its pidfd shows that it lives.
std::string LeaseConnection::executable() const {
  constexpr std::string_view kDeleted = " (deleted)";  // the system adds it
  char path[PATH_MAX];
  const std::string link = "/proc/" + std::to_string(peer.pid) + "/exe";
  const ssize_t size = process.get() < 0 ? -1 : readlink(link.c_str(), path, sizeof path);
  if (size < 0 || isSignalled(process.get(), POLLIN)) {
    return "";
  }
  std::string_view name(path, static_cast<std::size_t>(size));
  name.remove_prefix(name.rfind('/') + 1);
  name.remove_suffix(name.ends_with(kDeleted) ? kDeleted.size() : 0);
  return std::string(name);
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
  const auto length = static_cast<std::size_t>(size);
  if (length > sizeof(packet)) {
    return Request::bad;
  }
  const std::string_view text(packet, length);
  if (const auto lease = orvane::parseLeaseRequest(text)) {
    request = *lease;
    return Request::lease;
  }
  if (auto asked = orvane::parseTotalsRequest(text)) {
    totals = std::move(*asked);
    return Request::totals;
  }
  return Request::bad;
}

bool LeaseConnection::trySend(std::string text, std::span<const int> files) const {
  constexpr std::size_t kMostFiles = 2;
  iovec bytes = {text.data(), text.size()};
  alignas(cmsghdr) unsigned char control[CMSG_SPACE(kMostFiles * sizeof(int))] = {};
  msghdr message = {};
  message.msg_iov = &bytes;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = CMSG_SPACE(files.size_bytes());
  cmsghdr* const rights = CMSG_FIRSTHDR(&message);
  rights->cmsg_level = SOL_SOCKET;
  rights->cmsg_type = SCM_RIGHTS;
  rights->cmsg_len = CMSG_LEN(files.size_bytes());
  std::memcpy(CMSG_DATA(rights), files.data(), files.size_bytes());
  return sendmsg(socket.get(), &message, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0;
}

void LeaseConnection::sendRing(const orvane::RingGranted& reply, const orvane::RingReader& ring) {
  const int files[] = {ring.producersFile(), ring.serversFile()};
  if (!trySend(orvane::packetOf(reply), files) && errno != EPIPE && errno != ECONNRESET) {
    throw std::system_error(errno, std::generic_category(), "cannot hand the ring over");
  }
}

bool LeaseConnection::sendTotals(const orvane::TotalsFound& reply, int file) {
  int unread = 0;
  if (ioctl(socket.get(), SIOCOUTQ, &unread) != 0 || unread != 0) {
    return false;
  }
  const std::string packet = orvane::packetOf(reply);
  return reply.name.empty() ? trySend(packet) : trySend(packet, {&file, 1});
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
