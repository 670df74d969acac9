#include "worker/try_confinement.hpp"

#include <fcntl.h>
#include <linux/capability.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <new>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "shm/fd.hpp"
#include "worker/allowed_calls.hpp"
#include "worker/confinement.hpp"
#include "worker/landlock.hpp"

namespace orvaned {
namespace {

// The first letter of each line from the child.
constexpr char kInfo = 'i';
constexpr char kWarning = 'w';
constexpr char kError = 'e';

bool hasCapabilities() {
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3] = {};
  return syscall(SYS_capget, &header, sets) != 0 || sets[0].permitted != 0 ||
         sets[1].permitted != 0;
}

std::string aboutUser() {
  return kInfo + ("workers run as user " + std::to_string(geteuid()) + ", group ") +
         std::to_string(getegid()) + "\n";
}

std::string aboutCapabilities(const Confinement& confinement) {
  if (!confinement.capabilities) {
    return kWarning + std::string("workers keep the server's capabilities: --without capset\n");
  }
  return hasCapabilities() ? kWarning + std::string(
                                            "workers keep the server's capabilities: this "
                                            "kernel has no capset()\n")
                           : kInfo + std::string("workers have no capabilities\n");
}

std::string aboutLandlock(const Confinement& confinement, int version) {
  if (!confinement.landlock) {
    return kWarning + std::string("workers are not confined by Landlock: --without landlock\n");
  }
  return version == 0 ? kWarning + std::string(
                                       "workers are not confined by Landlock: this kernel "
                                       "does not have it, or has it switched off\n")
                      : kInfo + ("workers are confined by Landlock, version " +
                                 std::to_string(version) + ": they can open no path\n");
}

std::string aboutSeccomp(const Confinement& confinement, bool isOn) {
  if (!confinement.seccomp) {
    return kWarning + std::string("workers may make all system calls: --without seccomp\n");
  }
  return isOn ? kInfo + ("workers may make " +
                         std::to_string(workerCalls().size() + instrumentationCalls().size()) +
                         " system calls only, by seccomp\n")
              : kWarning + std::string(
                               "workers may make all system calls: this kernel does not "
                               "have seccomp\n");
}

void writeLines(int pipe, const std::string& lines) {
  if (write(pipe, lines.data(), lines.size()) < 0) {
    _exit(1);
  }
}

void confineAndReport(const Confinement& confinement, pid_t parent, std::atomic<int>* refusedCall,
                      int pipe) {
  dropRights(confinement, parent);
  std::string lines = aboutUser() + aboutCapabilities(confinement) +
                      aboutLandlock(confinement, confinement.landlock ? landlockVersion() : 0);
  lines += aboutSeccomp(confinement, restrictCalls(confinement, refusedCall));
  writeLines(pipe, lines);
}

[[noreturn]] void runChild(const Confinement& confinement, pid_t parent,
                           std::atomic<int>* refusedCall, int pipe) {
  try {
    confineAndReport(confinement, parent, refusedCall, pipe);
  } catch (const std::exception& e) {
    writeLines(pipe, kError + std::string(e.what()) + "\n");
  }
  _exit(0);
}

std::string readAll(int pipe) {
  std::string text;
  std::array<char, 4096> part = {};
  ssize_t length = 0;
  while ((length = read(pipe, part.data(), part.size())) > 0 || (length < 0 && errno == EINTR)) {
    text.append(part.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
  }
  return text;
}

// A page that a child shares with this process.
class SharedNumber {
 public:
  SharedNumber()
      : page(mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE,
                  MAP_SHARED | MAP_ANONYMOUS, -1, 0)) {
    if (page == MAP_FAILED) {
      throw std::system_error(errno, std::generic_category(), "no memory for a process");
    }
    number = new (page) std::atomic<int>(-1);
  }
  ~SharedNumber() { munmap(page, sizeof(std::atomic<int>)); }
  SharedNumber(const SharedNumber&) = delete;
  SharedNumber& operator=(const SharedNumber&) = delete;

  std::atomic<int>* get() const { return number; }

 private:
  void* page;
  std::atomic<int>* number = nullptr;
};

[[noreturn]] void refuse(const std::string& reason) {
  throw std::runtime_error("workers cannot be confined: " + reason);
}

std::vector<ConfinementLine> linesOf(const std::string& text) {
  std::vector<ConfinementLine> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    if (line.front() == kError) {
      refuse(line.substr(1));
    }
    lines.push_back({line.front() == kWarning, line.substr(1)});
  }
  return lines;
}

}  // namespace

std::vector<ConfinementLine> tryConfinement(const Confinement& confinement) {
  const SharedNumber refusedCall;
  int ends[2] = {};
  if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
    throw std::system_error(errno, std::generic_category(), "no pipe");
  }
  const tool::Fd reading(ends[0]);
  tool::Fd writing(ends[1]);
  const pid_t self = getpid();
  const pid_t child = fork();
  if (child < 0) {
    throw std::system_error(errno, std::generic_category(), "cannot start a process");
  }
  if (child == 0) {
    runChild(confinement, self, refusedCall.get(), writing.get());
  }
  writing.reset();
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  // Waiting first is safe: a pipe has room for these few lines.
  std::vector<ConfinementLine> lines = linesOf(readAll(reading.get()));
  if (WIFSIGNALED(status)) {
    const int call = *refusedCall.get();
    refuse("the trial ended with signal " + std::to_string(WTERMSIG(status)) +
           (call >= 0 ? ", at the system call " + nameOfCall(call) : ""));
  }
  return lines;
}

}  // namespace orvaned
