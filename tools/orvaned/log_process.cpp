#include "log_process.hpp"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <exception>
#include <string>
#include <string_view>

#include "log_limiter.hpp"

namespace orvaned {
namespace {

constexpr std::size_t kLargestPacket = sizeof(LogHeader) + kLongestSubject + kLongestLogText;
constexpr int kSecond = 1000;  // in milliseconds
constexpr int kPatienceOfOrphan = 10;

std::timespec timeNow() {
  std::timespec now = {};
  std::timespec_get(&now, TIME_UTC);
  return now;
}

class LogProcess {
 public:
  LogProcess(LogSocket& logSocket, pid_t parentProcess)
      : socket(logSocket), parent(parentProcess) {}

  void run() {
    while (waitForPacket()) {
      writeAll(limiter.due(Clock::now()));
      if (!takePacket()) {
        break;
      }
    }
    writeAll(limiter.finish());
    reportDropped(socket.dropped->exchange(0), timeNow());
  }

 private:
  using Clock = LogLimiter::Clock;

  // Returns when a packet is there, or the limiter has something to say.
  bool waitForPacket() const {
    int time = -1;
    if (const auto due = limiter.nextDue()) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(*due - Clock::now());
      time = std::max(0, static_cast<int>(left.count()));
    }
    pollfd readable = {socket.reader.get(), POLLIN, 0};
    return poll(&readable, 1, time) >= 0 || errno == EINTR;
  }

  // False at the end.
  bool takePacket() {
    const ssize_t size = recv(socket.reader.get(), packet.data(), packet.size(), MSG_DONTWAIT);
    if (size < 0) {
      return errno == EAGAIN || errno == EINTR;
    }
    LogHeader header;
    if (static_cast<std::size_t>(size) < sizeof(header)) {
      return false;
    }
    std::memcpy(&header, packet.data(), sizeof(header));
    reportDropped(header.dropped, header.sent);
    if (header.hasLine) {
      const std::string_view content(packet.data() + sizeof(header),
                                     static_cast<std::size_t>(size) - sizeof(header));
      const LogLine line{header.kind, header.code,
                         std::string(content.substr(0, header.subjectSize)),
                         std::string(content.substr(header.subjectSize))};
      if (limiter.admit(line, Clock::now())) {
        write(line, header.sent);
      }
    }
    return true;
  }

  void writeAll(const std::vector<LogLine>& lines) {
    for (const LogLine& line : lines) {
      write(line, timeNow());
    }
  }

  void reportDropped(std::uint64_t lines, const std::timespec& time) {
    if (lines > 0) {
      const std::string count = std::to_string(lines) + (lines == 1 ? " line was" : " lines were");
      write({ox::Kind::warning, 0, "",
             "log::write: " + count +
                 " dropped: standard error did not take the lines of the log "
                 "in time"},
            time, lines);
    }
  }

  // A line that cannot be written counts as dropped, together with those that it reports.
  void write(const LogLine& line, const std::timespec& time, std::uint64_t reported = 1) {
    std::string text(torn ? 1 : 0, '\n');
    text += logLine(line.kind, line.code, line.text.c_str(), time);
    std::size_t written = 0;
    while (written < text.size()) {
      waitForRoom();
      const ssize_t size = ::write(STDERR_FILENO, text.data() + written, text.size() - written);
      if (size > 0) {
        written += static_cast<std::size_t>(size);
      } else if (size == 0 || (errno != EINTR && errno != EAGAIN)) {
        break;
      }
    }
    if (written < text.size()) {
      socket.dropped->fetch_add(reported);
    }
    torn = written > 0 && written < text.size();
  }

  // Nobody waits for this process but the supervisor. When that is gone, and the pipe remains full,
  // nobody would ever end it.
  void waitForRoom() const {
    pollfd writable = {STDERR_FILENO, POLLOUT, 0};
    for (int seconds = 0; poll(&writable, 1, kSecond) == 0;) {
      if (getppid() != parent && ++seconds == kPatienceOfOrphan) {
        _exit(1);
      }
    }
  }

  LogSocket& socket;
  const pid_t parent;
  LogLimiter limiter;
  std::array<char, kLargestPacket> packet;
  bool torn = false;  // the last line was written in part
};

// A lease's connection, say, that stayed open here would not end with its lease.
void closeAllBut(int kept) {
  const auto number = static_cast<unsigned>(kept);
  const bool closed =
      (number <= STDERR_FILENO + 1 || close_range(STDERR_FILENO + 1, number - 1, 0) == 0) &&
      close_range(number + 1, ~0U, 0) == 0;
  for (long fd = STDERR_FILENO + 1; !closed && fd < sysconf(_SC_OPEN_MAX); ++fd) {
    if (fd != kept) {
      close(static_cast<int>(fd));
    }
  }
}

}  // namespace

LogHeader headerOf(const LogLine* line) {
  LogHeader header = {};
  header.sent = timeNow();
  if (line != nullptr) {
    header.kind = line->kind;
    header.code = line->code;
    header.subjectSize = static_cast<std::uint32_t>(line->subject.size());
    header.hasLine = true;
  }
  return header;
}

void runLogProcess(LogSocket& socket, pid_t parent) {
  prctl(PR_SET_NAME, "orvaned-log");
  setLogTarget(nullptr);
  closeAllBut(socket.reader.get());
  try {
    LogProcess(socket, parent).run();
  } catch (const std::exception&) {
    _exit(1);  // no memory; the supervisor starts another one
  }
  _exit(0);
}

}  // namespace orvaned
