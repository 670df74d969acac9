#include "support/break_in/attack.hpp"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>

namespace orvane::break_in {
namespace {

constexpr char kMark[] = "taken over";

int errorOf(long result) {
  return result < 0 ? errno : 0;
}

int overwrite(const std::string& path) {
  const int file = open(path.c_str(), O_WRONLY);
  return file < 0 ? errno : errorOf(write(file, kMark, sizeof(kMark)));
}

int writesAnotherStream(const AttackPlan& plan) {
  return overwrite(plan.otherStream);
}

int readsAnotherStream(const AttackPlan& plan) {
  char byte = 0;
  const int file = open(plan.otherStream.c_str(), O_RDONLY);
  return file < 0 ? errno : errorOf(read(file, &byte, 1));
}

int removesAnotherStream(const AttackPlan& plan) {
  return errorOf(unlink(plan.otherStream.c_str()));
}

int renamesAnotherStream(const AttackPlan& plan) {
  return errorOf(rename(plan.otherStream.c_str(), (plan.otherStream + ".gone").c_str()));
}

int makesAFileInTheStore(const AttackPlan& plan) {
  return errorOf(open((plan.store + "/made").c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600));
}

int listsTheStore(const AttackPlan& plan) {
  return errorOf(open(plan.store.c_str(), O_RDONLY | O_DIRECTORY));
}

int makesALinkInTheStore(const AttackPlan& plan) {
  return errorOf(symlink("/etc/passwd", (plan.store + "/link").c_str()));
}

int mapsAnotherQueue(const AttackPlan& plan) {
  const int queue = open(plan.otherQueue.c_str(), O_RDWR);
  if (queue < 0) {
    return errno;
  }
  void* memory = mmap(nullptr, 1, PROT_READ | PROT_WRITE, MAP_SHARED, queue, 0);
  if (memory == MAP_FAILED) {
    return errno;
  }
  *static_cast<char*>(memory) = 'x';
  return 0;
}

int makesAQueue(const AttackPlan& plan) {
  return errorOf(open((plan.otherQueue + ".made").c_str(), O_RDWR | O_CREAT | O_EXCL, 0600));
}

int removesAnotherQueue(const AttackPlan& plan) {
  return errorOf(unlink(plan.otherQueue.c_str()));
}

int rewritesItsOwnCapture(const AttackPlan& plan) {
  if (fcntl(plan.appendOnly, F_SETFL, 0) != 0 || lseek(plan.appendOnly, 0, SEEK_SET) != 0) {
    return errno;
  }
  return errorOf(write(plan.appendOnly, kMark, sizeof(kMark)));
}

int rewritesItsOwnCaptureByPath(const AttackPlan& plan) {
  return overwrite("/proc/self/fd/" + std::to_string(plan.appendOnly));
}

int cutsItsOwnCaptureOff(const AttackPlan& plan) {
  return errorOf(ftruncate(plan.appendOnly, 0));
}

int asksTheServersSocket(const AttackPlan& plan) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  plan.serverSocket.copy(address.sun_path, sizeof(address.sun_path) - 1);
  const int connection = socket(AF_UNIX, SOCK_STREAM, 0);
  return connection < 0 ? errno
                        : errorOf(connect(connection, reinterpret_cast<const sockaddr*>(&address),
                                          sizeof(address)));
}

int connectsOverTheNetwork(const AttackPlan& plan) {
  const int connection = socket(AF_INET, SOCK_STREAM, 0);
  return connection < 0
             ? errno
             : errorOf(connect(connection, reinterpret_cast<const sockaddr*>(&plan.internet),
                               sizeof(plan.internet)));
}

int listensOnTheNetwork(const AttackPlan&) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const int listener = socket(AF_INET, SOCK_STREAM, 0);
  if (listener < 0 ||
      bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    return errno;
  }
  return errorOf(listen(listener, 1));
}

// To a process that waits for descriptors, or over the lease to the producer.
int passesADescriptorOn(const AttackPlan& plan) {
  char byte = 0;
  iovec part = {&byte, 1};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  msghdr message = {};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof(control);
  cmsghdr* header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof(int));
  std::memcpy(CMSG_DATA(header), &plan.appendOnly, sizeof(int));
  return errorOf(sendmsg(plan.connection, &message, 0));
}

int startsAProgram(const AttackPlan&) {
  char name[] = "true";
  char* arguments[] = {name, nullptr};
  return errorOf(execve("/bin/true", arguments, nullptr));
}

int startsAProgramFromMemory(const AttackPlan&) {
  const int program = memfd_create("program", 0);
  if (program < 0) {
    return errno;
  }
  const int from = open("/bin/true", O_RDONLY);
  char part[4096];
  for (ssize_t length = 0; (length = read(from, part, sizeof(part))) > 0;) {
    if (write(program, part, static_cast<std::size_t>(length)) != length) {
      return errno;
    }
  }
  char name[] = "true";
  char* arguments[] = {name, nullptr};
  char* environment[] = {nullptr};
  return errorOf(fexecve(program, arguments, environment));
}

int forks(const AttackPlan&) {
  const pid_t child = fork();
  if (child == 0) {
    _exit(0);
  }
  return child < 0 ? errno : errorOf(waitpid(child, nullptr, 0));
}

int runsCodeThatItWrote(const AttackPlan&) {
  constexpr unsigned char kReturnZero[] = {0x31, 0xc0, 0xc3};
  void* memory = mmap(nullptr, sizeof(kReturnZero), PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  std::memcpy(memory, kReturnZero, sizeof(kReturnZero));
  if (mprotect(memory, sizeof(kReturnZero), PROT_READ | PROT_EXEC) != 0) {
    return errno;
  }
  return reinterpret_cast<int (*)()>(memory)();
}

int killsAnotherWorker(const AttackPlan& plan) {
  return errorOf(kill(plan.other, SIGKILL));
}

int killsAThreadOfAnotherWorker(const AttackPlan& plan) {
  return errorOf(syscall(SYS_tgkill, plan.other, plan.other, SIGKILL));
}

int killsAnotherWorkerByHandle(const AttackPlan& plan) {
  return errorOf(syscall(SYS_pidfd_send_signal, plan.otherHandle, SIGKILL, nullptr, 0));
}

int signalsTheSupervisor(const AttackPlan& plan) {
  return errorOf(kill(plan.supervisor, SIGCONT));
}

int tracesAnotherWorker(const AttackPlan& plan) {
  return errorOf(ptrace(PTRACE_ATTACH, plan.other, nullptr, nullptr));
}

// `kMark` is where a forked process has it too; it can be read there, which needs the same rights.
int readsAnotherWorker(const AttackPlan& plan) {
  char bytes[sizeof(kMark)] = {};
  const iovec to = {bytes, sizeof(bytes)};
  const iovec from = {const_cast<char*>(kMark), sizeof(kMark)};
  return errorOf(process_vm_readv(plan.other, &to, 1, &from, 1, 0));
}

char writable = 0;

int writesIntoAnotherWorker(const AttackPlan& plan) {
  char byte = 1;
  const iovec from = {&byte, 1};
  const iovec to = {&writable, 1};
  return errorOf(process_vm_writev(plan.other, &from, 1, &to, 1, 0));
}

int writesIntoAnotherWorkerByPath(const AttackPlan& plan) {
  return errorOf(open(("/proc/" + std::to_string(plan.other) + "/mem").c_str(), O_RDWR));
}

int takesADescriptorOfAnotherWorker(const AttackPlan& plan) {
  return errorOf(syscall(SYS_pidfd_getfd, plan.otherHandle, 0, 0));
}

constexpr Attack kAttacks[] = {
    {"WritesAnotherStream", writesAnotherStream},
    {"ReadsAnotherStream", readsAnotherStream},
    {"RemovesAnotherStream", removesAnotherStream},
    {"RenamesAnotherStream", renamesAnotherStream},
    {"MakesAFileInTheStore", makesAFileInTheStore},
    {"ListsTheStore", listsTheStore},
    {"MakesALinkInTheStore", makesALinkInTheStore},
    {"MapsAnotherQueue", mapsAnotherQueue},
    {"MakesAQueue", makesAQueue},
    {"RemovesAnotherQueue", removesAnotherQueue},
    {"RewritesItsOwnCapture", rewritesItsOwnCapture},
    {"RewritesItsOwnCaptureByPath", rewritesItsOwnCaptureByPath},
    {"CutsItsOwnCaptureOff", cutsItsOwnCaptureOff},
    {"AsksTheServersSocket", asksTheServersSocket},
    {"ConnectsOverTheNetwork", connectsOverTheNetwork},
    {"ListensOnTheNetwork", listensOnTheNetwork},
    {"PassesADescriptorOn", passesADescriptorOn},
    {"StartsAProgram", startsAProgram},
    {"StartsAProgramFromMemory", startsAProgramFromMemory},
    {"Forks", forks},
    {"RunsCodeThatItWrote", runsCodeThatItWrote},
    {"KillsAnotherWorker", killsAnotherWorker},
    {"KillsAThreadOfAnotherWorker", killsAThreadOfAnotherWorker},
    {"KillsAnotherWorkerByHandle", killsAnotherWorkerByHandle},
    {"SignalsTheSupervisor", signalsTheSupervisor},
    {"TracesAnotherWorker", tracesAnotherWorker},
    {"ReadsAnotherWorker", readsAnotherWorker},
    {"WritesIntoAnotherWorker", writesIntoAnotherWorker},
    {"WritesIntoAnotherWorkerByPath", writesIntoAnotherWorkerByPath},
    {"TakesADescriptorOfAnotherWorker", takesADescriptorOfAnotherWorker},
};

}  // namespace

std::span<const Attack> attacks() {
  return kAttacks;
}

int attack(const char* name, const AttackPlan& plan) {
  for (const Attack& one : kAttacks) {
    if (std::string_view(one.name) == name) {
      return one.run(plan);
    }
  }
  return EINVAL;
}

}  // namespace orvane::break_in
