#include "orvane/lease.hpp"

#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <string_view>
#include <system_error>

#include "orvane/status.hpp"
#include "orvane/timeout.hpp"
#include "ox/errno_exception.hpp"

// The talk on the socket (AF_UNIX, SOCK_SEQPACKET: each message is one packet of text):
//
//   producer  "orvane 1 lease"               1 is the version of this talk
//   server    "lease NAME"                   or "refused STATUS REASON", and the end
//   server    "receipt stream=..."           at each stream's end, or "failed STATUS REASON"
//
// A packet has 1 to kLongestPacket bytes, none of them a control character. The producer sends
// nothing more; the end of the connection ends the lease.
namespace orvane {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::string_view kRequest = "orvane 1 lease";
constexpr std::size_t kLongestPacket = 512;
constexpr ox_status_t kLowestServerStatus = 1000;  // below are those that this side throws

[[noreturn]] void fail(ox_status_t status, const std::string& message) {
  throw Ox_ErrnoException(status, message, "");
}

std::string reasonOf(int error) {
  return std::generic_category().message(error);
}

// The shutdown is what alive() sees when it is not the server that ended the connection.
[[noreturn]] void failLost(int connection, const std::string& message) {
  shutdown(connection, SHUT_RDWR);
  fail(kLeaseLost, message);
}

[[noreturn]] void failNotOfThisTalk(int connection, std::string_view packet) {
  failLost(connection, "The server does not keep to version 1 of this talk, it said \"" +
                           std::string(packet) + "\": install the same release on both sides");
}

class Deadline {
 public:
  explicit Deadline(unsigned int seconds)
      : timeout(seconds), end(Clock::now() + std::chrono::seconds(seconds)) {}

  // Never negative, and zero only when it has passed.
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
  const std::size_t longest = sizeof address.sun_path - 1;
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
  // No time at all would mean no limit.
  const auto count = std::max<std::chrono::microseconds::rep>(limit.count(), 1);
  const timeval value{count / 1'000'000, count % 1'000'000};
  if (setsockopt(connection, SOL_SOCKET, SO_SNDTIMEO, &value, sizeof value) != 0) {
    fail(kLeaseNoServer, "Cannot limit the wait for a lease: " + reasonOf(errno));
  }
}

// Waits while the server has as many clients as it lets wait.
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
    pollfd readable{connection, POLLIN, 0};
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

bool isControlCharacter(char c) {
  return static_cast<unsigned char>(c) < ' ' || c == '\x7f';
}

std::string receivePacket(int connection, const Deadline& deadline) {
  char packet[kLongestPacket];
  ssize_t received = 0;
  do {
    waitToReceive(connection, deadline);
    received = recv(connection, packet, sizeof packet, MSG_DONTWAIT | MSG_TRUNC);
    // A server that left without reading the request resets the connection: reported once, before
    // what it had said.
  } while (received < 0 && (errno == EAGAIN || errno == EINTR || errno == ECONNRESET));
  if (received < 0) {
    failLost(connection, "Cannot hear the server: " + reasonOf(errno));
  }
  const auto size = static_cast<std::size_t>(received);
  if (size == 0) {
    failLost(connection, "The server ended the lease without a word: it died or was stopped");
  }
  const std::string_view text(packet, std::min(size, sizeof packet));
  if (size > sizeof packet || std::any_of(text.begin(), text.end(), isControlCharacter)) {
    failNotOfThisTalk(connection, std::to_string(size) + " bytes");
  }
  return std::string(text);
}

// Takes `word` off the front of `text`, if it is there.
bool takeWord(std::string_view& text, std::string_view word) {
  if (text.substr(0, word.size()) != word) {
    return false;
  }
  text.remove_prefix(word.size());
  return true;
}

// Throws "1003 no room on disk"; returns when the text has another form.
void throwServersWord(std::string_view text) {
  ox_status_t status = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), status);
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  if (error == std::errc() && status >= kLowestServerStatus && takeWord(text, " ")) {
    fail(status, std::string(text));
  }
}

// May it be the name of a queue, which is that of a file in a folder?
bool isQueueName(std::string_view text) {
  return !text.empty() && text.find_first_of(" /") == std::string_view::npos;
}

std::string askForPair(int connection, const Deadline& deadline) {
  if (send(connection, kRequest.data(), kRequest.size(), MSG_NOSIGNAL) < 0 && errno != EPIPE &&
      errno != ECONNRESET) {  // after these two, what the server said before it left is still there
    failLost(connection, "Cannot ask the server for a lease: " + reasonOf(errno));
  }
  const std::string answer = receivePacket(connection, deadline);
  std::string_view text = answer;
  if (takeWord(text, "lease ") && isQueueName(text)) {
    return std::string(text);
  }
  if (takeWord(text, "refused ")) {
    throwServersWord(text);
  }
  failNotOfThisTalk(connection, answer);
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

// Not const: what it returns is gone from the connection.
// NOLINTNEXTLINE(readability-make-member-function-const)
std::string Lease::receipt(unsigned int timeout) {
  if (timeout != 0) {
    validateTimeout(timeout);
  }
  std::string packet = receivePacket(connection, Deadline(timeout));
  std::string_view text = packet;
  if (takeWord(text, "receipt ")) {
    return packet;
  }
  if (takeWord(text, "failed ")) {
    throwServersWord(text);
  }
  failNotOfThisTalk(connection, packet);
}

}  // namespace orvane
