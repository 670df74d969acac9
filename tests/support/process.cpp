#include "support/process.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

#include "support/eventually.hpp"
#include "support/system_call.hpp"

namespace orvane::test {
namespace {

std::string wholeFile(int fd) {
  std::string text;
  char block[4096];
  for (ssize_t size = 0;
       (size = pread(fd, block, sizeof block, static_cast<off_t>(text.size()))) > 0;) {
    text.append(block, static_cast<std::size_t>(size));
  }
  return text;
}

}  // namespace

Process::Process(const std::vector<std::string>& command, const ProcessSetup& around)
    : errIsTerminal(around.errorTerminal) {
  ::signal(SIGPIPE, SIG_IGN);
  int pipeEnds[2];
  orThrow(pipe2(pipeEnds, O_CLOEXEC), "pipe2");
  inputPipe = pipeEnds[1];
  out = orThrow(memfd_create("out", MFD_CLOEXEC), "memfd_create");
  std::string terminalName;
  if (errIsTerminal) {
    err = orThrow(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK), "posix_openpt");
    orThrow(grantpt(err), "grantpt");
    orThrow(unlockpt(err), "unlockpt");
    terminalName = ptsname(err);
  } else {
    err = orThrow(memfd_create("err", MFD_CLOEXEC), "memfd_create");
  }
  child = orThrow(fork(), "fork");
  if (child == 0) {
    become(command, around, pipeEnds[0], terminalName);
    _exit(126);
  }
  setpgid(child, child);  // both processes do this, as either may be first
  close(pipeEnds[0]);
}

// In the child.
void Process::become(const std::vector<std::string>& command, const ProcessSetup& around, int input,
                     const std::string& terminalName) const {
  setpgid(0, 0);
  ::signal(SIGPIPE, SIG_DFL);
  dup2(input, STDIN_FILENO);
  dup2(out, STDOUT_FILENO);
  dup2(errIsTerminal ? open(terminalName.c_str(), O_RDWR | O_NOCTTY) : err, STDERR_FILENO);
  if (around.fileSizeLimit) {
    const rlimit limit = {*around.fileSizeLimit, *around.fileSizeLimit};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  for (const std::string& variable : around.environment) {
    const std::size_t equals = variable.find('=');
    setenv(variable.substr(0, equals).c_str(), variable.substr(equals + 1).c_str(), 1);
  }
  std::vector<char*> words;
  for (const std::string& word : command) {
    words.push_back(const_cast<char*>(word.c_str()));
  }
  words.push_back(nullptr);
  execvp(words[0], words.data());
}

Process::~Process() {
  if (!hasEnded()) {
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
  }
  closeInput();
  close(out);
  close(err);
}

void Process::signal(int number) const {
  kill(child, number);
}

void Process::signalAll(int number) const {
  kill(-child, number);
}

void Process::write(const std::string& bytes) const {
  for (std::size_t done = 0; done < bytes.size();) {
    const ssize_t size = ::write(inputPipe, bytes.data() + done, bytes.size() - done);
    if (size < 0) {
      return;
    }
    done += static_cast<std::size_t>(size);
  }
}

void Process::closeInput() {
  if (inputPipe >= 0) {
    close(inputPipe);
    inputPipe = -1;
  }
}

std::string Process::output() const {
  return wholeFile(out);
}

std::string Process::errorOutput() const {
  return wholeFile(err);
}

std::string Process::terminalOutput() const {
  std::string text;
  char block[4096];
  for (ssize_t size = 0; (size = read(err, block, sizeof block)) > 0;) {
    text.append(block, static_cast<std::size_t>(size));
  }
  return text;
}

bool Process::hasEnded() {
  int ended = 0;
  if (!status && waitpid(child, &ended, WNOHANG) == child) {
    status = ended;
  }
  return status.has_value();
}

Ended Process::wait() {
  closeInput();
  if (!eventually([this] { return hasEnded(); })) {
    throw std::runtime_error("the program hangs");
  }
  const std::string how = WIFSIGNALED(*status) ? "signal " + std::to_string(WTERMSIG(*status))
                                               : "exit " + std::to_string(WEXITSTATUS(*status));
  return {how, wholeFile(out), errIsTerminal ? terminalOutput() : wholeFile(err)};
}

Ended run(const std::vector<std::string>& command, const std::string& input,
          const ProcessSetup& around) {
  Process process(command, around);
  process.write(input);
  return process.wait();
}

}  // namespace orvane::test
