#include "supervisor/log_writer.hpp"

#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <new>
#include <system_error>
#include <thread>
#include <utility>

#include "log.hpp"
#include "supervisor/log_process.hpp"

namespace orvaned {
namespace {

constexpr std::chrono::seconds kTimeToFinish{2};
constexpr std::chrono::seconds kTimeToDie{1};
constexpr std::chrono::milliseconds kBetweenStarts{100};
constexpr int kBufferSize = 1 << 20;

// This process's copy; a forked process inherits it.
LogSocket log;

void enlargeBuffer(int sender) {
  // The first needs CAP_NET_ADMIN; the second gives what the system allows everybody.
  if (setsockopt(sender, SOL_SOCKET, SO_SNDBUFFORCE, &kBufferSize, sizeof(kBufferSize)) != 0) {
    setsockopt(sender, SOL_SOCKET, SO_SNDBUF, &kBufferSize, sizeof(kBufferSize));
  }
}

LogSocket openSocket() {
  int ends[2] = {};
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
    throw std::system_error(errno, std::generic_category(), "no socket for the log");
  }
  LogSocket socket{tool::Fd(ends[0]), tool::Fd(ends[1])};
  enlargeBuffer(socket.sender.get());
  void* memory = mmap(nullptr, sizeof(DroppedLines), PROT_READ | PROT_WRITE,
                      MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) {
    throw std::system_error(errno, std::generic_category(), "no memory for the log");
  }
  socket.dropped = new (memory) DroppedLines(0);
  return socket;
}

void closeSocket() {
  log.sender.reset();
  log.reader.reset();
  if (DroppedLines* const dropped = std::exchange(log.dropped, nullptr)) {
    munmap(dropped, sizeof(DroppedLines));
  }
}

// Null: sends only the number of dropped lines. Needs no memory, so it cannot fail for lack of it.
bool send(const LogLine* line) noexcept {
  LogHeader header = headerOf(line);
  header.dropped = log.dropped->exchange(0);
  std::array<iovec, 3> parts = {{{&header, sizeof(header)}, {}, {}}};
  if (line != nullptr) {
    parts[1] = {const_cast<char*>(line->subject.data()), line->subject.size()};
    parts[2] = {const_cast<char*>(line->text.data()), line->text.size()};
  }
  msghdr message = {};
  message.msg_iov = parts.data();
  message.msg_iovlen = parts.size();
  ssize_t sent = -1;
  do {
    sent = sendmsg(log.sender.get(), &message, MSG_DONTWAIT | MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  if (sent < 0) {
    log.dropped->fetch_add(header.dropped);  // for the next packet that finds room
  }
  return sent >= 0;
}

void sendLine(const LogLine& line) {
  if (!send(&line)) {
    log.dropped->fetch_add(1);
  }
}

}  // namespace

LogWriter::LogWriter() {
  log = openSocket();
  start();
  if (pid < 0) {
    const int error = errno;
    closeSocket();
    throw std::system_error(error, std::generic_category(), "cannot start the log's process");
  }
  setLogTarget(sendLine);
}

LogWriter::~LogWriter() {
  finish();
  setLogTarget(nullptr);
  closeSocket();
}

// No signal reaches the child before it is ready: Ctrl-C goes to all processes of a terminal.
void LogWriter::start() noexcept {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  sigprocmask(SIG_SETMASK, &all, &before);
  lastStart = Clock::now();
  const pid_t parent = getpid();
  pid = fork();
  if (pid == 0) {
    runLogProcess(log, parent);
  }
  const int error = errno;
  sigprocmask(SIG_SETMASK, &before, nullptr);
  errno = error;
}

void LogWriter::restartIfEnded() noexcept {
  noticeEnd();
  // Not at once: a process that ends again and again would keep this one busy.
  if (pid < 0 && Clock::now() - lastStart >= kBetweenStarts) {
    start();
  }
  if (log.dropped->load() > 0) {
    send(nullptr);
  }
}

void LogWriter::noticeEnd() noexcept {
  if (pid > 0 && waitpid(pid, nullptr, WNOHANG) == pid) {
    pid = -1;
  }
}

void LogWriter::finish() noexcept {
  noticeEnd();
  if (pid < 0 && log.reader.get() >= 0) {
    start();  // the socket may still hold the reason why the server ends
  }
  if (pid > 0) {
    shutdown(log.sender.get(), SHUT_WR);  // other processes may still wait for a disk
    if (!hasEndedWithin(kTimeToFinish)) {
      kill(pid, SIGKILL);
      hasEndedWithin(kTimeToDie);
    }
  }
  pid = -1;
  log.reader.reset();
}

bool LogWriter::hasEndedWithin(std::chrono::milliseconds time) const noexcept {
  for (const auto deadline = Clock::now() + time; waitpid(pid, nullptr, WNOHANG) == 0;) {
    if (Clock::now() >= deadline) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

void closeLogReader() {
  log.reader.reset();
}

int logFile() {
  return log.sender.get();
}

void leaveLog() {
  setLogTarget(nullptr);
  closeSocket();
}

}  // namespace orvaned
