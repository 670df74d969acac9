#include "orvane/lease.hpp"

#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string_view>
#include <system_error>
#include <utility>
#include <variant>
#include <vector>

#include "lease/control_character.hpp"
#include "orvane/lease_protocol.hpp"
#include "orvane/server_status.hpp"
#include "orvane/status.hpp"
#include "orvane/timeout.hpp"
#include "orvane/writer.hpp"
#include "ox/errno_exception.hpp"
#include "ring/memory.hpp"
#include "ring/producer.hpp"

namespace orvane {

namespace {

using Clock = std::chrono::steady_clock;

[[noreturn]] void fail(ox_status_t status, const std::string& message) {
  throw Ox_ErrnoException(status, message, "");
}

std::string reasonOf(int error) {
  return std::generic_category().message(error);
}

// The shutdown makes alive() return false if the server did not end the connection itself.
[[noreturn]] void failLost(int connection, const std::string& message) {
  shutdown(connection, SHUT_RDWR);
  fail(kLeaseLost, message);
}

[[noreturn]] void failUnexpected(int connection, std::string_view packet) {
  failLost(connection, "Unexpected reply \"" + std::string(packet) +
                           "\" (lease protocol 1): client and server versions differ; install the "
                           "same release of both");
}

class Deadline {
 public:
  explicit Deadline(unsigned int seconds)
      : timeout(seconds), end(Clock::now() + std::chrono::seconds(seconds)) {}

  // Never negative, and zero only after the deadline.
  template <typename Duration>
  Duration left() const {
    return std::max(std::chrono::ceil<Duration>(end - Clock::now()), Duration(0));
  }

  [[noreturn]] void failTimedOut() const {
    fail(kStatusTimedOut, "Timed out after waiting " + std::to_string(timeout) +
                              "s for the server's answer: it is busy or was stopped");
  }

 private:
  const unsigned int timeout;
  const Clock::time_point end;
};

int newSocket() {
  const int made = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (made < 0) {
    fail(kLeaseNoServer, "Cannot make a socket to ask for a lease: " + reasonOf(errno));
  }
  return made;
}

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  constexpr std::size_t longest = sizeof address.sun_path - 1;
  // A path that is empty or begins with a zero byte would name a socket outside the file system.
  if (path.empty() || path.size() > longest || path.find('\0') != std::string::npos) {
    fail(kLeaseNoServer, "A socket's path has 1 to " + std::to_string(longest) +
                             " bytes, none of them zero; this one has " +
                             std::to_string(path.size()) + " bytes");
  }
  path.copy(address.sun_path, longest);
  return address;
}

void limitSending(int connection, std::chrono::microseconds limit) {
  // A limit of zero would mean no limit.
  const auto count = std::max<std::chrono::microseconds::rep>(limit.count(), 1);
  const timeval value{count / 1'000'000, count % 1'000'000};
  if (setsockopt(connection, SOL_SOCKET, SO_SNDTIMEO, &value, sizeof value) != 0) {
    fail(kLeaseNoServer, "Cannot limit the wait for a lease: " + reasonOf(errno));
  }
}

// Blocks while the server's queue of waiting connections is full.
ring::File connectTo(const std::string& path, const Deadline& deadline) {
  const sockaddr_un address = addressOf(path);
  ring::File connection(newSocket());
  do {
    limitSending(connection.get(), deadline.left<std::chrono::microseconds>());
    if (connect(connection.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) ==
        0) {
      return connection;
    }
  } while (errno == EINTR);
  if (errno == EAGAIN) {
    deadline.failTimedOut();
  }
  fail(kLeaseNoServer, "No server to ask for a lease at " + path + ": " + reasonOf(errno) +
                           "; is it running, and may this user connect?");
}

void waitToReceive(int connection, const Deadline& deadline) {
  for (;;) {
    const auto left = deadline.left<std::chrono::milliseconds>();
    pollfd readable{connection, POLLIN, {}};
    const int ready = poll(&readable, 1, static_cast<int>(left.count()));
    if (ready > 0) {
      return;
    }
    if (ready < 0 && errno != EINTR) {
      failLost(connection, "Cannot wait for the server: " + reasonOf(errno));
    }
    if (left.count() == 0) {
      deadline.failTimedOut();
    }
  }
}

// A packet's text and the files that came with it.
struct Packet {
  std::string text;
  std::vector<ring::File> files;
};

// Takes the files out of all control messages, so that none stays open. There are no messages of
// other types, because nothing asked the socket for them.
std::vector<ring::File> filesOf(msghdr& message) {
  std::vector<ring::File> files;
  for (cmsghdr* part = CMSG_FIRSTHDR(&message); part != nullptr;
       part = CMSG_NXTHDR(&message, part)) {
    const unsigned char* const end = reinterpret_cast<unsigned char*>(part) + part->cmsg_len;
    for (const unsigned char* at = CMSG_DATA(part); at + sizeof(int) <= end; at += sizeof(int)) {
      int fd{};
      std::memcpy(&fd, at, sizeof fd);
      files.emplace_back(fd);
    }
  }
  return files;
}

Packet receivePacket(int connection, const Deadline& deadline) {
  char text[kLongestLeasePacket];
  // As many files as Linux passes with one packet, so that a server cannot make this process lose
  // one that it does not see.
  constexpr std::size_t kMostFiles = 253;
  alignas(cmsghdr) unsigned char control[CMSG_SPACE(kMostFiles * sizeof(int))];
  iovec bytes = {text, sizeof text};
  msghdr message = {};
  message.msg_iov = &bytes;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  ssize_t received;
  do {
    waitToReceive(connection, deadline);
    received = recvmsg(connection, &message, MSG_DONTWAIT | MSG_TRUNC | MSG_CMSG_CLOEXEC);
    // If the server left without reading the request, the first call reports a reset connection,
    // and the next one returns the packet that the server had sent.
  } while (received < 0 && (errno == EAGAIN || errno == EINTR || errno == ECONNRESET));
  if (received < 0) {
    failLost(connection, "Cannot hear the server: " + reasonOf(errno));
  }
  const auto size = static_cast<std::size_t>(received);
  std::vector<ring::File> files = filesOf(message);
  if (size == 0) {
    failLost(connection, "The server ended the lease without a reason: it died or was stopped");
  }
  if ((message.msg_flags & MSG_CTRUNC) != 0) {
    files.clear();  // they may be the last descriptors that this process can have
    failLost(connection,
             "The server sent files that this process has no room for: raise its limit "
             "of open files");
  }
  const std::string_view whole(text, std::min(size, sizeof text));
  if (size > sizeof text || std::any_of(whole.begin(), whole.end(), isControlCharacter)) {
    failUnexpected(connection, std::to_string(size) + " bytes");
  }
  return {std::string(whole), std::move(files)};
}

LeaseReply replyIn(int connection, const std::string& text) {
  auto reply = parseLeaseReply(text);
  if (!reply) {
    failUnexpected(connection, text);
  }
  return std::move(*reply);
}

void sendRequest(int connection, const LeaseRequest& request) {
  const std::string packet = packetOf(request);
  if (send(connection, packet.data(), packet.size(), MSG_NOSIGNAL) == -1 && errno != EPIPE &&
      errno != ECONNRESET) {  // after these two, the packet that the server sent can still be read
    failLost(connection, "Cannot ask the server for a lease: " + reasonOf(errno));
  }
}

bool hasEnded(int connection) {
  pollfd end{connection, POLLRDHUP, 0};
  poll(&end, 1, 0);
  return end.revents != 0;
}

// A lease as the server granted it.
struct Granted {
  ring::File connection;
  std::string name;
  std::shared_ptr<ring::Producer> ring;
};

Granted askFor(const LeaseRequest& request, const std::string& path, const Deadline& deadline) {
  ring::File connection = connectTo(path, deadline);
  const int fd = connection.get();
  sendRequest(fd, request);
  const Packet packet = receivePacket(fd, deadline);
  LeaseReply reply = replyIn(fd, packet.text);
  if (const auto* refused = std::get_if<LeaseRefused>(&reply)) {
    fail(refused->status, refused->reason);
  }
  if (auto* queues = std::get_if<LeaseGranted>(&reply);
      queues != nullptr && request.ringBytes == 0) {
    return {std::move(connection), std::move(queues->queue), nullptr};
  }
  if (auto* granted = std::get_if<RingGranted>(&reply);
      granted != nullptr && granted->bytes == request.ringBytes && packet.files.size() == 2) {
    auto ring = std::make_shared<ring::Producer>(
        packet.files[0], packet.files[1], granted->bytes,
        ring::Producer::Connection{[fd] { return hasEnded(fd); },
                                   [fd] { shutdown(fd, SHUT_RDWR); }});
    return {std::move(connection), std::move(granted->name), std::move(ring)};
  }
  failUnexpected(fd, packet.text);
}

// What to ask for, until the server understands it: a server may know neither labels nor rings.
std::vector<LeaseRequest> requestsFor(Transport transport, std::uint64_t ringBytes,
                                      const std::string& label) {
  std::vector<LeaseRequest> requests;
  for (const Transport one : {Transport::ring, Transport::queue}) {
    if (transport != one && transport != Transport::automatic) {
      continue;
    }
    const std::uint64_t bytes = one == Transport::ring ? ringBytes : 0;
    if (!label.empty()) {
      requests.push_back({bytes, label});
    }
    requests.push_back({bytes});
  }
  return requests;
}

Granted askFor(const std::vector<LeaseRequest>& requests, const std::string& path,
               const Deadline& deadline) {
  for (auto request = requests.begin();; ++request) {
    try {
      return askFor(*request, path, deadline);
    } catch (const Ox_ErrnoException& e) {
      if (e.status() != kBadRequest || request + 1 == requests.end()) {
        throw;
      }
    }
  }
}

void checkLabel(const std::string& label) {
  if (label.size() > kLongestLabel) {
    fail(kStatusInvalidArgument, "A label has at most " + std::to_string(kLongestLabel) +
                                     " bytes; this one has " + std::to_string(label.size()) +
                                     ": shorten it");
  }
  if (!isLabel(label)) {
    fail(kStatusInvalidArgument, "A label has no control characters; this one has: remove them");
  }
}

}  // namespace

Lease::Lease(const std::string& socketPath, unsigned int timeout, Transport transport,
             std::uint64_t ringBytes, const std::string& label)
    : connection(-1) {
  validateTimeout(timeout);
  checkLabel(label);
  if (transport != Transport::queue) {
    ring::checkedRingSize(ringBytes);
  }
  Granted granted = askFor(requestsFor(transport, ringBytes, label), socketPath, Deadline(timeout));
  name = std::move(granted.name);
  producer = std::move(granted.ring);
  connection = granted.connection.release();
}

Lease::~Lease() {
  // A thread cancelled in close() would unwind through a destructor, which ends the process.
  int cancelState = PTHREAD_CANCEL_ENABLE;
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState);
  close(connection);
  pthread_setcancelstate(cancelState, nullptr);
}

const std::string& Lease::queueName() const {
  return name;
}

Transport Lease::transport() const {
  return producer ? Transport::ring : Transport::queue;
}

const std::shared_ptr<ring::Producer>& Lease::ring() const {
  return producer;
}

int Lease::fd() const {
  return connection;
}

bool Lease::alive() const {
  return !hasEnded(connection);
}

// Not const, because it removes the receipt from the connection.
// NOLINTNEXTLINE(readability-make-member-function-const)
Receipt Lease::receipt(unsigned int timeout) {
  if (timeout != 0) {
    validateTimeout(timeout);
  }
  const Packet packet = receivePacket(connection, Deadline(timeout));
  LeaseReply reply = replyIn(connection, packet.text);
  if (const auto* failed = std::get_if<StreamFailed>(&reply)) {
    fail(failed->status, failed->reason);
  }
  if (auto* receipt = std::get_if<Receipt>(&reply)) {
    return std::move(*receipt);
  }
  failUnexpected(connection, packet.text);
}

std::unique_ptr<ChannelWriter> makeWriter(const std::string& name, const Lease& lease,
                                          unsigned int timeout, unsigned int stopTimeout) {
  if (lease.ring() != nullptr) {
    return std::make_unique<RingWriter>(name, lease.ring(), timeout, stopTimeout, false);
  }
  return std::make_unique<ShmWriter>(name, lease.queueName(), timeout, stopTimeout, false);
}

}  // namespace orvane
