#include "support/server_process.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iterator>
#include <regex>
#include <stdexcept>

#include "support/await.hpp"
#include "support/reachable.hpp"

namespace orvane::test {

using boost::interprocess::message_queue;

namespace {

[[noreturn]] void become(const std::vector<std::string>& arguments, int output,
                         const ServerProcess::Setup& setup) {
  setpgid(0, 0);
  std::vector<char*> argv = {const_cast<char*>("orvaned")};
  for (const std::string& argument : arguments) {
    argv.push_back(const_cast<char*>(argument.c_str()));
  }
  argv.push_back(nullptr);
  dup2(output, STDOUT_FILENO);
  dup2(setup.standardError.value_or(output), STDERR_FILENO);
  if (setup.standardErrorClosed) {
    close(STDERR_FILENO);
  }
  if (setup.standardOutput != nullptr) {
    dup2(open(setup.standardOutput, O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
  }
  if (setup.openFileLimit) {
    const rlimit limit{*setup.openFileLimit, *setup.openFileLimit};
    setrlimit(RLIMIT_NOFILE, &limit);
  }
  if (setup.fileSizeLimit) {
    const rlimit limit{*setup.fileSizeLimit, *setup.fileSizeLimit};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  // To ThreadSanitizer, a lock taken over from a dead process is none.
  const char* options = getenv("TSAN_OPTIONS");
  setenv("TSAN_OPTIONS", ((options ? options : "") + std::string(" report_mutex_bugs=0")).c_str(),
         1);
  const std::string program = reachable(setup.program);
  setup.prepare();
  execv(program.c_str(), argv.data());
  _exit(127);
}

}  // namespace

ServerProcess::ServerProcess(const std::vector<std::string>& arguments, const Setup& setup) {
  int ends[2] = {};
  if (pipe2(ends, O_CLOEXEC) != 0) {
    throw std::runtime_error("no pipe");
  }
  pid = fork();
  if (pid == 0) {
    become(arguments, ends[1], setup);
  }
  setpgid(pid, pid);  // both processes do this, as either may be first
  close(ends[1]);
  fd = ends[0];
}

ServerProcess::~ServerProcess() {
  if (pid > 0 && !status) {
    endInOrder();
  }
  closeOutput();
}

bool ServerProcess::says(const std::string& words, int times) {
  for (;;) {
    int found = 0;
    for (std::size_t at = 0; (at = text.find(words, at)) != std::string::npos; ++at) {
      ++found;
    }
    if (found >= times) {
      return true;
    }
    if (!read()) {
      return false;
    }
  }
}

void ServerProcess::signal(int number) const {
  if (pid > 0) {  // after wait() it would reach everybody
    kill(pid, number);
  }
}

// A server that is killed leaves its lock files.
void ServerProcess::endInOrder() const {
  kill(-pid, SIGCONT);
  kill(pid, SIGTERM);
  const std::time_t deadline = std::time(nullptr) + kTimeoutMilliseconds / 1000;
  while (waitpid(pid, nullptr, WNOHANG) == 0) {
    if (std::time(nullptr) > deadline) {
      killAll();
    }
    sched_yield();
  }
}

void ServerProcess::signalAll(int number) const {
  if (pid > 0) {
    kill(-pid, number);
  }
}

void ServerProcess::killAll() const {
  signalAll(SIGKILL);
}

void ServerProcess::stopAll() const {
  const auto awaitStop = [](pid_t process) {
    const auto isStopped = [&] {
      const char state = stateOf(process);
      return state == 'T' || state == 'Z' || state == '\0';
    };
    if (!eventually(isStopped)) {
      throw std::runtime_error("process " + std::to_string(process) + " does not stop");
    }
  };
  signalAll(SIGSTOP);
  awaitStop(pid);  // it forks no more
  for (const pid_t child : children()) {
    awaitStop(child);
  }
}

// The child that has the queue in its memory, where it still has the name that it was made under.
pid_t ServerProcess::workerOf(const std::string& queue) const {
  return childWith("/." + queue + ".new");
}

pid_t ServerProcess::workerOfRing() const {
  return childWith("/memfd:orvane-ring");
}

std::vector<pid_t> ServerProcess::children() const {
  const std::string parent = std::to_string(pid);
  std::ifstream listed("/proc/" + parent + "/task/" + parent + "/children");
  std::vector<pid_t> found;
  for (pid_t child = 0; listed >> child;) {
    found.push_back(child);
  }
  return found;
}

pid_t ServerProcess::childWith(const std::string& mapped) const {
  for (const std::time_t deadline = std::time(nullptr) + 30; std::time(nullptr) < deadline;) {
    for (const pid_t child : children()) {
      std::ifstream maps("/proc/" + std::to_string(child) + "/maps");
      for (std::string line; std::getline(maps, line);) {  // until it ends, or its process has
        if (line.find(mapped) != std::string::npos) {
          return child;
        }
      }
    }
    sched_yield();
  }
  throw std::runtime_error("nobody serves " + mapped);
}

void ServerProcess::waitUntilStopped() const {
  int stopped = 0;
  waitpid(pid, &stopped, WUNTRACED);
}

int ServerProcess::wait() {
  while (fd >= 0 && read()) {
  }
  int ended = status.value_or(0);
  if (!status) {
    waitpid(pid, &ended, 0);
  }
  pid = -1;
  return WIFEXITED(ended) ? WEXITSTATUS(ended) : -WTERMSIG(ended);
}

bool ServerProcess::isRunning() {
  int ended = 0;
  if (!status && waitpid(pid, &ended, WNOHANG) == pid) {
    status = ended;
  }
  return !status;
}

std::string ServerProcess::output() const {
  static const std::regex time(
      "(^|\\n)[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}Z ");
  // What is said of the confinement depends on the kernel.
  static const std::regex confinement("TIME [a-z]+ 0 orvaned::prepareConfinement: [^\n]*\n");
  return std::regex_replace(std::regex_replace(text, time, "$1TIME "), confinement, "");
}

const std::string& ServerProcess::outputSoFar() {
  for (pollfd there{fd, POLLIN, 0}; poll(&there, 1, 0) == 1 && read();) {
  }
  return text;
}

void ServerProcess::closeOutput() {
  if (fd >= 0) {
    close(fd);
    fd = -1;
  }
}

// Reads what there is, waiting for the first byte; false at the end.
bool ServerProcess::read() {
  pollfd waiting{fd, POLLIN, 0};
  if (poll(&waiting, 1, kTimeoutMilliseconds) != 1) {
    throw std::runtime_error("the server neither ends nor says anything; it said: " + text);
  }
  char bytes[4096];
  const ssize_t size = ::read(fd, bytes, sizeof(bytes));
  if (size > 0) {
    text.append(bytes, static_cast<std::size_t>(size));
  }
  return size > 0;
}

std::unique_ptr<message_queue> attach(const std::string& name) {
  for (const std::time_t deadline = std::time(nullptr) + 30; std::time(nullptr) < deadline;) {
    try {
      return std::make_unique<message_queue>(boost::interprocess::open_only, name.c_str());
    } catch (const boost::interprocess::interprocess_exception&) {
      sched_yield();
    }
  }
  throw std::runtime_error("the server did not create " + name);
}

}  // namespace orvane::test
