#include "support/lease_client.hpp"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

#include "support/system_call.hpp"

namespace orvane::test {

LeaseClient::LeaseClient(const std::string& socketPath)
    : socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  socketPath.copy(address.sun_path, sizeof(address.sun_path) - 1);
  orThrow(connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)),
          "connect");
}

// A server that refused and left already is no error: its word waits to be read.
void LeaseClient::send(const std::string& packet) const {
  if (::send(socket.get(), packet.data(), packet.size(), MSG_NOSIGNAL) < 0 && errno != EPIPE) {
    throw std::system_error(errno, std::generic_category(), "send");
  }
}

std::string LeaseClient::next() const {
  pollfd readable = {socket.get(), POLLIN, 0};
  if (poll(&readable, 1, kTimeoutMilliseconds) != 1) {
    throw std::runtime_error("the server says nothing");
  }
  char packet[1024];
  const ssize_t size = recv(socket.get(), packet, sizeof(packet), 0);
  if (size < 0) {
    // Said once, before what is there to read, by a server that left without reading everything.
    return errno == ECONNRESET ? next() : throw std::system_error(errno, std::generic_category());
  }
  return size == 0 ? kEnd : std::string(packet, static_cast<std::size_t>(size));
}

std::string LeaseClient::ask() const {
  send("orvane 1 lease");
  const std::string answer = next();
  return answer.starts_with("lease ") ? answer.substr(6) : answer;
}

LeaseClient::Ring LeaseClient::askForRing(std::uint64_t bytes) const {
  send("orvane 1 ring " + std::to_string(bytes));
  return nextWithFiles();
}

LeaseClient::Ring LeaseClient::askForTotals(const std::string& after) const {
  send("orvane 1 totals" + (after.empty() ? "" : " after=" + after));
  return nextWithFiles();
}

LeaseClient::Ring LeaseClient::nextWithFiles() const {
  char packet[1024];
  iovec text = {packet, sizeof packet};
  alignas(cmsghdr) unsigned char control[CMSG_SPACE(8 * sizeof(int))];
  msghdr message = {};
  message.msg_iov = &text;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  const ssize_t size = recvmsg(socket.get(), &message, MSG_CMSG_CLOEXEC);
  orThrow(static_cast<int>(size), "recvmsg");
  Ring ring = {size > 0 ? std::string(packet, static_cast<std::size_t>(size)) : kEnd, {}};
  if (const cmsghdr* const rights = CMSG_FIRSTHDR(&message)) {
    for (std::size_t at = CMSG_LEN(0); at < rights->cmsg_len; at += sizeof(int)) {
      int file = -1;
      std::memcpy(&file, reinterpret_cast<const unsigned char*>(rights) + at, sizeof file);
      ring.files.emplace_back(file);
    }
  }
  return ring;
}

bool LeaseClient::hasEnded() const {
  pollfd end = {socket.get(), POLLRDHUP, 0};
  return poll(&end, 1, 0) > 0;
}

Producer::Producer(const std::string& queue)
    : sendQueue(boost::interprocess::open_only, queue.c_str()),
      answerQueue(boost::interprocess::open_only, (queue + "Response").c_str()) {}

void Producer::send(std::initializer_list<Record> records) {
  send(BatchBytes().records(records).bytes());
}

void Producer::send(const Bytes& message) {
  sendQueue.send(message.data(), message.size(), 1);
}

}  // namespace orvane::test
