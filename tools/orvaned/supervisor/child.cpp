#include "supervisor/child.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <exception>
#include <new>
#include <orvane/orvane.hpp>
#include <system_error>
#include <thread>

#include "log.hpp"
#include "worker/confinement.hpp"

namespace orvaned {
namespace {

constexpr std::chrono::seconds kTimeToDie{1};
constexpr int kRestingShare = 32;

Heartbeat* sharedHeartbeat() {
  void* memory =
      mmap(nullptr, sizeof(Heartbeat), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) {
    throw std::system_error(errno, std::generic_category(), "no memory for a process");
  }
  return new (memory) Heartbeat;
}

// There may be no memory left; the line must not need any then.
void logException(const char* what) noexcept {
  try {
    orvane::server::Logger("process").log(orvane::server::LEVEL_ERROR, "run", kTaskThrew,
                                          "this process ends: %s", doublePercent(what).c_str());
  } catch (...) {
    constexpr char line[] = "orvaned: a process ends, out of memory\n";
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line, sizeof(line) - 1);
  }
}

int run(const Child::Task& task, Heartbeat& heartbeat) noexcept {
  try {
    return task(heartbeat);
  } catch (const std::exception& e) {
    logException(e.what());
  } catch (...) {
    logException("an unknown exception");
  }
  return kTaskThrew;
}

Child::Clock::duration processorTimeOf(pid_t process) {
  clockid_t clock = 0;
  timespec used = {};
  if (clock_getcpuclockid(process, &clock) != 0 || clock_gettime(clock, &used) != 0) {
    return Child::Clock::duration(0);
  }
  return std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
}

}  // namespace

Child::Child(const Task& task, Orphaned orphaned) : heartbeat(sharedHeartbeat()) {
  const pid_t parent = getpid();
  pid = fork();
  if (pid == 0) {
    if (orphaned == Orphaned::ends) {
      endWith(parent, SIGTERM);
    }
    _exit(run(task, *heartbeat));
  }
  if (pid < 0) {
    const int error = errno;
    munmap(heartbeat, sizeof(Heartbeat));
    throw std::system_error(error, std::generic_category(), "cannot start a process");
  }
}

Child::~Child() {
  signal(SIGKILL);
  const auto deadline = Clock::now() + (abandoned ? std::chrono::seconds(0) : kTimeToDie);
  while (!ended() && Clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  munmap(heartbeat, sizeof(Heartbeat));
}

std::optional<int> Child::ended() {
  int found = 0;
  if (!status && waitpid(pid, &found, WNOHANG) == pid) {
    status = found;
  }
  return status;
}

void Child::signal(int number) const {
  if (!status) {
    kill(pid, number);
  }
}

void Child::abandon() {
  signal(SIGKILL);
  abandoned = true;
}

Child::Clock::duration Child::insideQueueCall() {
  const std::uint32_t calls = heartbeat->queueCalls.load(std::memory_order_relaxed);
  const auto now = Clock::now();
  if (calls != lastCalls || calls % 2 == 0) {
    lastCalls = calls;
    lastChange = now;
  }
  return now - lastChange;
}

Child::Clock::duration Child::busyWithoutMessage() {
  const std::uint32_t messages = heartbeat->messages.load(std::memory_order_relaxed);
  const auto now = Clock::now();
  const auto used = processorTimeOf(pid);
  if (messages != lastMessages || (used - busyFrom) * kRestingShare < now - busySince) {
    lastMessages = messages;
    busySince = now;
    busyFrom = used;
  }
  return used - busyFrom;
}

void endAtTermination() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigprocmask(SIG_UNBLOCK, &signals, nullptr);
}

std::pair<tool::Fd, tool::Fd> connectedSockets() {
  int ends[2] = {};
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
    throw std::system_error(errno, std::generic_category(), "cannot start a process");
  }
  return {tool::Fd(ends[0]), tool::Fd(ends[1])};
}

void nameProcess(const char* name) {
  prctl(PR_SET_NAME, name);
}

void closeStandardFiles() {
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  const tool::Fd none(open("/dev/null", O_RDWR | O_CLOEXEC));
  for (const int file : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    dup2(none.get(), file);
  }
#endif
}

}  // namespace orvaned
