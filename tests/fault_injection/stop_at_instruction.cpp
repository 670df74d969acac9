// Kills or stops a process at an instruction that no signal alone could choose: it is interrupted
// where it is, executes COUNT more instructions one by one, and gets SIGKILL or SIGSTOP before the
// next one: stop_at_instruction PID COUNT KILL|STOP. Prints when, in seconds of CLOCK_MONOTONIC.
// Exit code 3: the process had ended before.

#include <sys/ptrace.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>

namespace {

using Clock = std::chrono::steady_clock;

// A process that sleeps again and again would take too long for its instructions.
constexpr std::chrono::milliseconds kLongest{500};

class Ended : public std::exception {};

// Nobody may trace a process that has ended, and whose parent does not know it yet.
bool hasEnded(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  std::getline(file, line);  // "4711 (orvaned) Z ..."
  const std::size_t name = line.rfind(") ");
  return name == std::string::npos || line[name + 2] == 'Z' || line[name + 2] == 'X';
}

class Traced {
 public:
  explicit Traced(pid_t pid) : pid(pid) {
    request(PTRACE_SEIZE, 0);
    request(PTRACE_INTERRUPT, 0);
    awaitStop();
  }

  // A signal for the process itself is passed on to it.
  void step() {
    request(PTRACE_SINGLESTEP, signalForIt);
    awaitStop();
  }

  // It executes no instruction more: a signal comes before the return from the stop.
  void strike(int number) const {
    if (kill(pid, number) != 0) {
      throw Ended();
    }
    ptrace(PTRACE_DETACH, pid, nullptr, nullptr);  // fails after SIGKILL, which needs none
  }

 private:
  void request(__ptrace_request what, int number) const {
    if (ptrace(what, pid, nullptr, long{number}) == 0) {
      return;
    }
    const int error = errno;
    if (error == ESRCH || hasEnded(pid)) {
      throw Ended();
    }
    throw std::runtime_error("cannot trace " + std::to_string(pid) + ": " + strerror(error));
  }

  void awaitStop() {
    int status = 0;
    if (waitpid(pid, &status, __WALL) != pid || !WIFSTOPPED(status)) {
      throw Ended();
    }
    const bool isEvent = status >> 16 != 0;
    const int number = WSTOPSIG(status);
    signalForIt = isEvent || number == SIGTRAP ? 0 : number;
  }

  const pid_t pid;
  int signalForIt = 0;
};

}  // namespace

int main(int argc, char** argv) try {
  const std::string what = argc == 4 ? argv[3] : "";
  if (what != "KILL" && what != "STOP") {
    std::cerr << "usage: stop_at_instruction PID COUNT KILL|STOP\n";
    return 2;
  }
  Traced process(std::stoi(argv[1]));
  const auto deadline = Clock::now() + kLongest;
  for (int left = std::stoi(argv[2]); left > 0 && Clock::now() < deadline; --left) {
    process.step();
  }
  const std::chrono::duration<double> now = Clock::now().time_since_epoch();
  process.strike(what == "KILL" ? SIGKILL : SIGSTOP);
  std::printf("%.6f\n", now.count());
  return 0;
} catch (const Ended&) {
  return 3;
} catch (const std::exception& e) {
  std::cerr << "stop_at_instruction: " << e.what() << "\n";
  return 1;
}
