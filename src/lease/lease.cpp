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
#include <string_view>
#include <system_error>
#include <utility>
#include <variant>

#include "lease/control_character.hpp"
#include "orvane/lease_protocol.hpp"
#include "orvane/status.hpp"
#include "orvane/timeout.hpp"
#include "ox/errno_exception.hpp"

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
void connectTo(const std::string& path, int connection, const Deadline& deadline) {
  const sockaddr_un address = addressOf(path);
  do {
    limitSending(connection, deadline.left<std::chrono::microseconds>());
    if (connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
      return;
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

LeaseReply receiveReply(int connection, const Deadline& deadline) {
  char packet[kLongestLeasePacket];
  ssize_t received = 0;
  do {
    waitToReceive(connection, deadline);
    received = recv(connection, packet, sizeof packet, MSG_DONTWAIT | MSG_TRUNC);
    // If the server left without reading the request, the first call reports a reset connection,
    // and the next one returns the packet that the server had sent.
  } while (received < 0 && (errno == EAGAIN || errno == EINTR || errno == ECONNRESET));
  if (received < 0) {
    failLost(connection, "Cannot hear the server: " + reasonOf(errno));
  }
  const auto size = static_cast<std::size_t>(received);
  if (size == 0) {
    failLost(connection, "The server ended the lease without a reason: it died or was stopped");
  }
  const std::string_view text(packet, std::min(size, sizeof packet));
  if (size > sizeof packet || std::any_of(text.begin(), text.end(), isControlCharacter)) {
    failUnexpected(connection, std::to_string(size) + " bytes");
  }
  auto reply = parseLeaseReply(text);
  if (!reply) {
    failUnexpected(connection, text);
  }
  return std::move(*reply);
}

void sendRequest(int connection) {
  if (send(connection, kLeaseRequest.data(), kLeaseRequest.size(), MSG_NOSIGNAL) < 0 &&
      errno != EPIPE &&
      errno != ECONNRESET) {  // after these two, the packet that the server sent can still be read
    failLost(connection, "Cannot ask the server for a lease: " + reasonOf(errno));
  }
}

std::string askForPair(int connection, const Deadline& deadline) {
  sendRequest(connection);
  LeaseReply reply = receiveReply(connection, deadline);
  if (const auto* refused = std::get_if<LeaseRefused>(&reply)) {
    fail(refused->status, refused->reason);
  }
  if (auto* granted = std::get_if<LeaseGranted>(&reply)) {
    return std::move(granted->queue);
  }
  failUnexpected(connection, packetOf(reply));
}

}  // namespace

Lease::Lease(const std::string& socketPath, unsigned int timeout) : connection(-1) {
  validateTimeout(timeout);
  const Deadline deadline(timeout);
  connection = newSocket();
  try {
    connectTo(socketPath, connection, deadline);
    name = askForPair(connection, deadline);
  } catch (...) {
    close(connection);
    throw;
  }
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

bool Lease::alive() const {
  pollfd end{connection, POLLRDHUP, 0};
  poll(&end, 1, 0);
  return end.revents == 0;
}

// Not const, because it removes the receipt from the connection.
// NOLINTNEXTLINE(readability-make-member-function-const)
Receipt Lease::receipt(unsigned int timeout) {
  if (timeout != 0) {
    validateTimeout(timeout);
  }
  LeaseReply reply = receiveReply(connection, Deadline(timeout));
  if (const auto* failed = std::get_if<StreamFailed>(&reply)) {
    fail(failed->status, failed->reason);
  }
  if (auto* receipt = std::get_if<Receipt>(&reply)) {
    return std::move(*receipt);
  }
  failUnexpected(connection, packetOf(reply));
}

}  // namespace orvane
