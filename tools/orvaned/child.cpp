#include "child.hpp"

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <new>
#include <system_error>
#include <thread>

namespace orvaned {
namespace {

constexpr std::chrono::seconds kTimeToDie{1};

Heartbeat* sharedHeartbeat() {
  void* memory =
      mmap(nullptr, sizeof(Heartbeat), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) {
    throw std::system_error(errno, std::generic_category(), "no memory for a process");
  }
  return new (memory) Heartbeat;
}

}  // namespace

Child::Child(const Task& task) : heartbeat(sharedHeartbeat()) {
  const pid_t parent = getpid();
  pid = fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) {
      raise(SIGTERM);  // the parent was gone before the line above
    }
    _exit(task(*heartbeat));
  }
  if (pid < 0) {
    const int error = errno;
    munmap(heartbeat, sizeof(Heartbeat));
    throw std::system_error(error, std::generic_category(), "cannot start a process");
  }
}

Child::~Child() {
  signal(SIGKILL);
  for (const auto deadline = Clock::now() + kTimeToDie; !ended() && Clock::now() < deadline;) {
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

Child::Clock::duration Child::insideQueueCall() {
  const std::uint32_t calls = heartbeat->queueCalls.load(std::memory_order_relaxed);
  const auto now = Clock::now();
  if (calls != lastCalls || calls % 2 == 0) {
    lastCalls = calls;
    lastChange = now;
  }
  return now - lastChange;
}

void endAtTermination() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigprocmask(SIG_UNBLOCK, &signals, nullptr);
}

}  // namespace orvaned
