#include "supervisor/dead_run_search.hpp"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstddef>
#include <exception>
#include <orvane/orvane.hpp>
#include <orvane/server_status.hpp>
#include <utility>

#include "leases/lease_run.hpp"
#include "log.hpp"
#include "shm/shm_names.hpp"
#include "shm/totals.hpp"

namespace orvaned {
namespace {

// The process sends one packet for each pair, "QUEUE USER" (USER: its number plus 1, or 0), then
// one of these.
constexpr char kDone[] = ".done";
constexpr char kRemoved[] = "r";
constexpr char kAgain[] = ".again";
constexpr std::size_t kLongestPacket = 512;

// Reads the user from the file of totals, which is the server's own.
std::uint64_t userPlusOneOf(const std::string& queue) {
  const tool::Fd file(
      open(tool::totalsPathOf(queue).c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat status = {};
  std::uint64_t user = 0;
  const bool isOurs = file.get() >= 0 && fstat(file.get(), &status) == 0 &&
                      S_ISREG(status.st_mode) && status.st_uid == geteuid();
  const bool isRead = isOurs && pread(file.get(), &user, sizeof user,
                                      offsetof(tool::Totals, userPlusOne)) == sizeof user;
  return isRead ? user : 0;
}

void sendPacket(const tool::Fd& socket, const std::string& packet) {
  send(socket.get(), packet.data(), packet.size(), MSG_NOSIGNAL);
}

// Ends when the supervisor closes its end. Without a byte before that, the pairs may still be
// there: the lock files stay, so that the next server finds them.
int search(const tool::Fd& supervisor) {
  const DeadRuns dead = lockDeadRuns();
  for (const DeadRun& run : dead.locked) {
    for (const std::string& queue : run.queues) {
      sendPacket(supervisor, queue + " " + std::to_string(userPlusOneOf(queue)));
    }
  }
  sendPacket(supervisor, dead.moreLater ? kAgain : kDone);
  char byte = 0;
  ssize_t size = 0;
  do {
    size = recv(supervisor.get(), &byte, 1, 0);
  } while (size < 0 && errno == EINTR);
  if (size <= 0) {
    _exit(0);
  }
  return 0;
}

std::optional<DeadRunSearch::DeadPair> parse(const std::string& packet) {
  const std::size_t blank = packet.find(' ');
  if (blank == std::string::npos) {
    return std::nullopt;
  }
  std::uint64_t user = 0;
  std::from_chars(packet.data() + blank + 1, packet.data() + packet.size(), user);
  return DeadRunSearch::DeadPair{
      packet.substr(0, blank),
      user > 0 ? std::optional(static_cast<uid_t>(user - 1)) : std::nullopt};
}

}  // namespace

DeadRunSearch::DeadRunSearch(const ProcessContext& context) {
  try {
    auto [ours, theirs] = connectedSockets();
    process = std::make_unique<Child>([&, file = theirs.get()](Heartbeat&) {
      context.keepOnly({file}, LogAccess::kept);
      return search(tool::Fd(file));
    });
    socket = std::move(ours);
  } catch (const std::exception& e) {
    orvane::server::Logger("leases").log(orvane::server::LEVEL_ERROR, "searchDeadRuns",
                                         orvane::kNoPair,
                                         "cannot look for what dead servers left, trying again: %s",
                                         doublePercent(e.what()).c_str());
    complete = true;
    repeat = true;
  }
}

void DeadRunSearch::release() {
  if (complete && socket.get() >= 0) {
    sendPacket(socket, kRemoved);
  }
  socket.reset();
}

std::optional<DeadRunSearch::DeadPair> DeadRunSearch::next() {
  if (complete) {
    return std::nullopt;
  }
  char packet[kLongestPacket];
  const ssize_t size = recv(socket.get(), packet, sizeof packet, MSG_DONTWAIT);
  if (size < 0 && (errno == EAGAIN || errno == EINTR)) {
    return std::nullopt;
  }
  const std::string text(packet, size > 0 ? static_cast<std::size_t>(size) : 0);
  if (auto left = parse(text)) {
    return left;
  }
  complete = true;
  repeat = text != kDone;
  return std::nullopt;
}

}  // namespace orvaned
