#include "lease_connection.hpp"

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <utility>

namespace orvaned {
namespace {

constexpr std::size_t kLongestPacket = 512;
constexpr std::string_view kRequest = "orvane 1 lease";

}  // namespace

LeaseConnection::LeaseConnection(Fd connected) : socket(std::move(connected)) {
  socklen_t size = sizeof(who);
  getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &who, &size);
}

LeaseConnection::Request LeaseConnection::readRequest() {
  char packet[kLongestPacket];
  const ssize_t size = recv(socket.get(), packet, sizeof(packet), MSG_DONTWAIT | MSG_TRUNC);
  if (size < 0) {
    return errno == EAGAIN || errno == EINTR ? Request::none : Request::end;
  }
  if (size == 0) {
    return Request::end;
  }
  const bool whole = static_cast<std::size_t>(size) <= sizeof(packet);
  return whole && std::string_view(packet, static_cast<std::size_t>(size)) == kRequest
             ? Request::lease
             : Request::bad;
}

// A path in a reason may hold anything.
void LeaseConnection::send(const std::string& text) {
  std::string packet = text.substr(0, kLongestPacket);
  std::replace_if(
      packet.begin(), packet.end(),
      [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; }, '?');
  kept.push_back(std::move(packet));
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
