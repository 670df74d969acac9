// What keeps the borders of messages in the kernel: a SEQPACKET socket and a POSIX message queue.
#include <fcntl.h>
#include <mqueue.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <fstream>

#include "links.hpp"

namespace bench {
namespace {

constexpr long kMessages = 8;
constexpr int kForcedBuffer = 4 << 20;

class PacketLink : public Link {
 public:
  PacketLink(std::array<int, 2> both, std::size_t capacity) : ends(both), buffer(capacity) {}
  ~PacketLink() override {
    for (const int fd : ends) {
      close(fd);
    }
  }

  unsigned char* room() override { return buffer.data(); }
  void send(std::size_t size) override { send({buffer.data(), size}, {}); }
  void send(Bytes head, Bytes data) override {
    std::array<iovec, 2> pieces = {iovec{const_cast<unsigned char*>(head.data()), head.size()},
                                   iovec{const_cast<unsigned char*>(data.data()), data.size()}};
    if (writev(ends[1], pieces.data(), pieces.size()) < 0) {
      failWithErrno("cannot send a packet");
    }
  }
  Bytes receive() override {
    const ssize_t size = recv(ends[0], buffer.data(), buffer.size(), 0);
    if (size <= 0) {
      failWithErrno("cannot receive a packet");
    }
    return {buffer.data(), static_cast<std::size_t>(size)};
  }

 private:
  const std::array<int, 2> ends;
  std::vector<unsigned char> buffer;
};

class PosixQueueLink : public Link {
 public:
  explicit PosixQueueLink(std::size_t capacity) : buffer(capacity) {
    const std::string name = "/" + uniqueName();
    mq_attr attributes = {};
    attributes.mq_maxmsg = kMessages;
    attributes.mq_msgsize = static_cast<long>(capacity);
    queue = mq_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600, &attributes);
    if (queue < 0) {
      failWithErrno("cannot make a POSIX queue");
    }
    mq_unlink(name.c_str());
  }
  ~PosixQueueLink() override { mq_close(queue); }

  unsigned char* room() override { return buffer.data(); }
  using Link::send;
  void send(std::size_t size) override {
    if (mq_send(queue, reinterpret_cast<const char*>(buffer.data()), size, 0) != 0) {
      failWithErrno("cannot send to a POSIX queue");
    }
  }
  Bytes receive() override {
    const ssize_t size =
        mq_receive(queue, reinterpret_cast<char*>(buffer.data()), buffer.size(), nullptr);
    if (size < 0) {
      failWithErrno("cannot receive from a POSIX queue");
    }
    return {buffer.data(), static_cast<std::size_t>(size)};
  }

 private:
  std::vector<unsigned char> buffer;
  mqd_t queue = -1;
};

std::array<int, 2> packetSockets() {
  std::array<int, 2> ends = {};
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    failWithErrno("cannot make a socket pair");
  }
  return ends;
}

bool forceBuffer(int socket) {
  return setsockopt(socket, SOL_SOCKET, SO_SNDBUFFORCE, &kForcedBuffer, sizeof kForcedBuffer) == 0;
}

}  // namespace

// A packet needs room in the send buffer at once, with some 600 bytes of the kernel's own.
std::size_t largestPacket() {
  const std::array<int, 2> ends = packetSockets();
  int size = 0;
  socklen_t length = sizeof size;
  getsockopt(ends[1], SOL_SOCKET, SO_SNDBUF, &size, &length);
  for (const int fd : ends) {
    close(fd);
  }
  return static_cast<std::size_t>(size) - 1024;
}

std::unique_ptr<Link> makePackets(std::size_t capacity) {
  return std::make_unique<PacketLink>(packetSockets(), capacity);
}

bool mayForceBuffers() {
  const std::array<int, 2> ends = packetSockets();
  const bool may = forceBuffer(ends[1]);
  for (const int fd : ends) {
    close(fd);
  }
  return may;
}

std::unique_ptr<Link> makeForcedPackets(std::size_t capacity) {
  const std::array<int, 2> ends = packetSockets();
  forceBuffer(ends[1]);
  return std::make_unique<PacketLink>(ends, capacity);
}

// Root may exceed what the system sets as the limit, but not its own resource limit by default.
std::size_t largestPosixMessage() {
  const rlimit none = {RLIM_INFINITY, RLIM_INFINITY};
  if (setrlimit(RLIMIT_MSGQUEUE, &none) == 0 && geteuid() == 0) {
    return 1 << 24;
  }
  std::size_t largest = 0;
  std::ifstream("/proc/sys/fs/mqueue/msgsize_max") >> largest;
  return largest;
}

std::unique_ptr<Link> makePosixQueue(std::size_t capacity) {
  return std::make_unique<PosixQueueLink>(capacity);
}

}  // namespace bench
