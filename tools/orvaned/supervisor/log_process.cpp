#include "supervisor/log_process.hpp"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <deque>
#include <exception>
#include <string>
#include <string_view>

#include "log_limiter.hpp"
#include "worker/confinement.hpp"

namespace orvaned {
namespace {

constexpr std::size_t kLargestPacket = sizeof(LogHeader) + kLongestSubject + kLongestLogText;
constexpr int kSecond = 1000;  // in milliseconds
constexpr std::chrono::seconds kTimeWithoutSupervisor{10};
constexpr std::size_t kLargestBacklog = 1 << 20;

std::timespec timeNow() {
  std::timespec now = {};
  std::timespec_get(&now, TIME_UTC);
  return now;
}

// Receives packets into a backlog as soon as they come, because a socket's buffer is small for
// users without privileges. Writes when standard error has room.
class LogProcess {
 public:
  LogProcess(LogSocket& socket, pid_t parent) : socket(socket), parent(parent) {}

  void run() {
    for (bool open = true; open || !backlog.empty();) {
      const bool hasRoom = waitForEvents(open);
      if (open) {
        open = receivePackets();
        addAll(open ? limiter.due(Clock::now()) : limiter.finish());
        addDropped(open ? 0 : socket.dropped->exchange(0), timeNow());
      }
      if (hasRoom && !backlog.empty()) {
        writeFirst();
      }
    }
  }

 private:
  using Clock = LogLimiter::Clock;

  struct Written {
    std::string text;
    std::uint64_t lines;  // the number of dropped lines that it reports, or 1
  };

  bool isFull() const { return backlogSize >= kLargestBacklog; }

  // Waits for something to do. Returns whether standard error can be written to.
  bool waitForEvents(bool open) {
    std::array<pollfd, 2> events = {{{open && !isFull() ? socket.reader.get() : -1, POLLIN, 0},
                                     {backlog.empty() ? -1 : STDERR_FILENO, POLLOUT, 0}}};
    int time = backlog.empty() ? -1 : kSecond;
    if (const auto due = limiter.nextDue(); open && due) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(*due - Clock::now());
      time = std::clamp(static_cast<int>(left.count()), 0, kSecond);
    }
    poll(events.data(), events.size(), time);
    const bool hasRoom = events[1].revents != 0;
    if (hasRoom || backlog.empty()) {
      lastRoom = Clock::now();
    } else if (getppid() != parent && Clock::now() - lastRoom > kTimeWithoutSupervisor) {
      _exit(1);  // the supervisor was killed, and nothing else would end this process
    }
    return hasRoom;
  }

  // Returns false when no process can send any more.
  bool receivePackets() {
    while (!isFull()) {
      const ssize_t size = recv(socket.reader.get(), packet.data(), packet.size(), MSG_DONTWAIT);
      if (size < 0) {
        return errno == EAGAIN || errno == EINTR;
      }
      if (static_cast<std::size_t>(size) < sizeof(LogHeader)) {
        return false;
      }
      parsePacket(std::string_view(packet.data(), static_cast<std::size_t>(size)));
    }
    return true;
  }

  void parsePacket(std::string_view content) {
    LogHeader header = {};
    std::memcpy(&header, content.data(), sizeof(header));
    addDropped(header.dropped, header.sent);
    if (header.hasLine) {
      content.remove_prefix(sizeof(header));
      const LogLine line{header.kind, header.code,
                         std::string(content.substr(0, header.subjectSize)),
                         std::string(content.substr(header.subjectSize))};
      if (limiter.admit(line, Clock::now())) {
        add(line, header.sent);
      }
    }
  }

  void addAll(const std::vector<LogLine>& lines) {
    for (const LogLine& line : lines) {
      add(line, timeNow());
    }
  }

  void addDropped(std::uint64_t lines, const std::timespec& time) {
    if (lines > 0) {
      const std::string count = std::to_string(lines) + (lines == 1 ? " line was" : " lines were");
      add({ox::Kind::warning, 0, "",
           "log::write: " + count +
               " dropped: standard error did not take the lines of the log in time"},
          time, lines);
    }
  }

  void add(const LogLine& line, const std::timespec& time, std::uint64_t lines = 1) {
    backlog.push_back({logLine(line.kind, line.code, line.text.c_str(), time), lines});
    backlogSize += backlog.back().text.size();
  }

  // A line that cannot be written counts as dropped, and so do the lines that it reports.
  void writeFirst() {
    const Written& first = backlog.front();
    const ssize_t size =
        ::write(STDERR_FILENO, first.text.data() + written, first.text.size() - written);
    if (size < 0 && (errno == EINTR || errno == EAGAIN)) {
      return;
    }
    written += static_cast<std::size_t>(std::max<ssize_t>(size, 0));
    if (size > 0 && written < first.text.size()) {
      return;
    }
    const bool torn = written > 0 && written < first.text.size();
    if (written < first.text.size()) {
      socket.dropped->fetch_add(first.lines);
    }
    backlogSize -= first.text.size();
    backlog.pop_front();
    written = 0;
    if (torn && !backlog.empty()) {
      backlog.front().text.insert(0, 1, '\n');
      ++backlogSize;
    }
  }

  LogSocket& socket;
  const pid_t parent;
  LogLimiter limiter;
  std::array<char, kLargestPacket> packet = {};
  std::deque<Written> backlog;
  std::size_t backlogSize = 0;  // in bytes of text
  std::size_t written = 0;      // bytes of the first line
  Clock::time_point lastRoom = Clock::now();
};

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
  try {
    // A lease's connection that stayed open here would not end with its lease.
    closeAllBut({STDIN_FILENO, STDOUT_FILENO, socket.reader.get()});
    LogProcess(socket, parent).run();
  } catch (const std::exception&) {
    _exit(1);  // no memory; the supervisor starts another one
  }
  _exit(0);
}

}  // namespace orvaned
