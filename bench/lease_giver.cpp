#include "lease_giver.hpp"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstring>

#include "link.hpp"

namespace bench {

LeaseGiver::LeaseGiver()
    : path("/tmp/" + uniqueName()), listening(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  if (bind(listening, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(listening, 1) != 0) {
    failWithErrno("listen at " + path);
  }
}

LeaseGiver::~LeaseGiver() {
  close(connection);
  close(listening);
  unlink(path.c_str());
}

void LeaseGiver::give(std::string packet, std::span<const int> files) {
  constexpr std::size_t kMostFiles = 2;
  connection = accept(listening, nullptr, nullptr);
  iovec text = {packet.data(), packet.size()};
  alignas(cmsghdr) std::array<unsigned char, CMSG_SPACE(kMostFiles * sizeof(int))> control = {};
  msghdr message = {};
  message.msg_iov = &text;
  message.msg_iovlen = 1;
  if (!files.empty()) {
    message.msg_control = control.data();
    message.msg_controllen = CMSG_SPACE(files.size_bytes());
    cmsghdr* const rights = CMSG_FIRSTHDR(&message);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(files.size_bytes());
    std::memcpy(CMSG_DATA(rights), files.data(), files.size_bytes());
  }
  if (sendmsg(connection, &message, 0) < 0) {
    failWithErrno("sendmsg");
  }
}

void LeaseGiver::endLease() const {
  shutdown(connection, SHUT_RDWR);
}

}  // namespace bench
