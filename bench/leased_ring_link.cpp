#include "leased_ring_link.hpp"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <utility>

namespace bench {
namespace {

constexpr unsigned kTimeout = 30;

void sendGrant(int connection, const orvane::RingReader& ring, std::uint64_t bytes) {
  std::string packet = packetOf(orvane::RingGranted{"ring", bytes});
  iovec text = {packet.data(), packet.size()};
  const std::array<int, 2> files = {ring.producersFile(), ring.serversFile()};
  alignas(cmsghdr) std::array<unsigned char, CMSG_SPACE(sizeof files)> control = {};
  msghdr message = {};
  message.msg_iov = &text;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  cmsghdr* const rights = CMSG_FIRSTHDR(&message);
  rights->cmsg_level = SOL_SOCKET;
  rights->cmsg_type = SCM_RIGHTS;
  rights->cmsg_len = CMSG_LEN(sizeof files);
  std::memcpy(CMSG_DATA(rights), files.data(), sizeof files);
  if (sendmsg(connection, &message, 0) < 0) {
    failWithErrno("sendmsg");
  }
}

}  // namespace

LeasedRingLink::LeasedRingLink(std::size_t frame, std::size_t ringBytes)
    : frame(frame),
      ringBytes(ringBytes),
      listening(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  if (bind(listening, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(listening, 1) != 0) {
    failWithErrno("listen at " + path);
  }
}

LeasedRingLink::~LeasedRingLink() {
  close(listening);
  unlink(path.c_str());
}

void LeasedRingLink::beSender() {
  leased.emplace(path, kTimeout, orvane::Transport::ring, ringBytes);
  leased->ring()->setUsualFrame(frame);
}

void LeasedRingLink::beReceiver() {
  connection = accept(listening, nullptr, nullptr);
  ring = std::make_unique<orvane::RingReader>(ringBytes);
  sendGrant(connection, *ring, ringBytes);
}

void LeasedRingLink::answer() {
  if (std::exchange(owesAnswer, false)) {
    ring->answer(orvane::pvk_shm_response_t());
  }
}

Bytes LeasedRingLink::receive() {
  orvane::RingReader::Batch batch = {};
  for (answer(); (batch = ring->receive()).data == nullptr;) {
    ring->wait();
  }
  owesAnswer = true;
  return {batch.data, batch.size};
}

}  // namespace bench
