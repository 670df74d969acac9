#include "transport/server_process.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <thread>

#include "exit.hpp"
#include "shm/shm_names.hpp"
#include "transport/backoff.hpp"

namespace tool {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kReadyTime(10);
constexpr std::chrono::seconds kEndTime(10);

// A name without a folder is searched in PATH.
std::string serverProgram() {
  const fs::path folder = fs::read_symlink("/proc/self/exe").parent_path();
  for (const fs::path& candidate : {folder / "orvaned", folder / "../bin/orvaned"}) {
    if (access(candidate.c_str(), X_OK) == 0) {
      return candidate;
    }
  }
  return "orvaned";
}

[[noreturn]] void becomeServer(pid_t parent, const char* log, char* const* arguments) {
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  // It gets its own process group, so that Ctrl-C ends only the command, which then stops it.
  setpgid(0, 0);
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  if (getppid() != parent) {
    _exit(1);  // the parent had ended before the line above
  }
  const int input = open("/dev/null", O_RDONLY);
  const int output = open(log, O_WRONLY | O_CREAT | O_APPEND, 0600);
  if (dup2(input, STDIN_FILENO) < 0 || dup2(output, STDOUT_FILENO) < 0 ||
      dup2(output, STDERR_FILENO) < 0) {
    _exit(1);
  }
  execvp(arguments[0], arguments);
  dprintf(STDERR_FILENO, "cannot run %s: %s\n", arguments[0], std::strerror(errno));
  _exit(127);
}

std::string lastLine(const fs::path& file) {
  std::ifstream stream(file);
  std::string last;
  for (std::string line; std::getline(stream, line);) {
    if (!line.empty()) {
      last = line;
    }
  }
  return last;
}

// Finds the files by the unique part of their names, so that incomplete queues are removed, too.
void removeQueues(const std::string& queueName) {
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(kShmFolder, ignored)) {
    if (entry.path().filename().string().find(queueName) != std::string::npos) {
      fs::remove(entry.path(), ignored);
    }
  }
}

}  // namespace

ServerProcess::ServerProcess(const std::string& queueName, const fs::path& store,
                             const fs::path& log)
    : queueName(queueName), log(log) {
  std::string words[] = {serverProgram(), "--queue", queueName, "--store", store};
  char* arguments[] = {words[0].data(), words[1].data(), words[2].data(),
                       words[3].data(), words[4].data(), nullptr};
  const pid_t parent = getpid();
  pid = fork();
  if (pid == 0) {
    becomeServer(parent, log.c_str(), arguments);
  }
  group = pid;
  if (pid < 0) {
    throw Failure(kNothingSent, std::string("cannot start a process: ") + std::strerror(errno));
  }
}

ServerProcess::~ServerProcess() {
  if (pid > 0) {
    kill(pid, SIGTERM);
    if (!waitForEnd(kEndTime)) {
      kill(pid, SIGKILL);
      waitForEnd(kEndTime);
    }
  }
  // Its workers are still there if it died.
  kill(-group, SIGKILL);
  removeQueues(queueName);
}

void ServerProcess::waitUntilReady(Interrupt& interrupt) {
  const auto deadline = Clock::now() + kReadyTime;
  for (Backoff backoff(interrupt); !fs::exists(kShmFolder + queueName); backoff.pause()) {
    if (Clock::now() >= deadline) {
      throw Failure(kNothingSent, "orvaned made no queue within " +
                                      std::to_string(kReadyTime.count()) + " s: " + lastLine(log));
    }
  }
}

void ServerProcess::throwEnded() {
  waitForEnd(kEndTime);
  throw Failure(kUnknown, "orvaned ended, " + howItEnded());
}

void ServerProcess::stop() {
  kill(pid, SIGTERM);
  if (!waitForEnd(kEndTime)) {
    throw Failure(kUnknown, "orvaned did not end within " + std::to_string(kEndTime.count()) +
                                " s of SIGTERM: " + lastLine(log));
  }
  if (endStatus != 0) {
    throw Failure(kUnknown, "orvaned ended badly, " + howItEnded());
  }
}

bool ServerProcess::waitForEnd(std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  while (waitpid(pid, &endStatus, WNOHANG) != pid) {
    if (Clock::now() >= deadline) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  pid = -1;
  return true;
}

std::string ServerProcess::howItEnded() const {
  const std::string how =
      WIFSIGNALED(endStatus)
          ? std::string("killed by signal ") + std::to_string(WTERMSIG(endStatus))
          : "exit code " + std::to_string(WEXITSTATUS(endStatus));
  return how + ": " + lastLine(log);
}

}  // namespace tool
