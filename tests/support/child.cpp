#include "support/child.hpp"

#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <system_error>

namespace orvane::test {
namespace {

constexpr std::size_t kPageSize = 4096;

void* trap = nullptr;
int trapSignal = 0;

// Any other fault happens again on return, and then ends the process.
void springTrap(int, siginfo_t* info, void*) {
  if (info->si_addr != trap) {
    ::signal(SIGSEGV, SIG_DFL);
    return;
  }
  raise(trapSignal);
  mprotect(trap, kPageSize, PROT_READ | PROT_WRITE);
}

// Without what the parent does at its end; but a build that measures coverage writes its counters
// then.
[[noreturn]] void end(int code) {
#ifdef ORVANE_COVERAGE
  std::exit(code);
#else
  _exit(code);
#endif
}

[[noreturn]] void runAsChild(const std::function<void()>& body) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  try {
    body();
    end(0);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "child: %s\n", e.what());
    end(1);
  }
}

}  // namespace

Child::Child(const std::function<void()>& body) {
  std::fflush(nullptr);  // or a child that calls exit() prints it again
  id = fork();
  if (id < 0) {
    throw std::system_error(errno, std::generic_category(), "fork");
  }
  if (id == 0) {
    runAsChild(body);
  }
}

Child::~Child() {
  if (!ended) {
    kill(id, SIGKILL);
    waitpid(id, nullptr, 0);
  }
}

void Child::signal(int number) const {
  kill(id, number);
}

std::string Child::nextChange() {
  siginfo_t change;
  if (waitid(P_PID, static_cast<id_t>(id), &change, WEXITED | WSTOPPED) != 0) {
    throw std::system_error(errno, std::generic_category(), "waitid");
  }
  if (change.si_code == CLD_STOPPED) {
    return "stopped";
  }
  ended = true;
  return (change.si_code == CLD_EXITED ? "exit " : "signal ") + std::to_string(change.si_status);
}

void* pageThatRaises(int signal) {
  trap = mmap(nullptr, kPageSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (trap == MAP_FAILED) {
    throw std::system_error(errno, std::generic_category(), "mmap");
  }
  trapSignal = signal;
  struct sigaction action = {};
  action.sa_sigaction = springTrap;
  action.sa_flags = SA_SIGINFO;
  sigaction(SIGSEGV, &action, nullptr);
  return trap;
}

}  // namespace orvane::test
