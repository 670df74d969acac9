// The table of allowed calls; what a confined process is ended for, and that the same succeeds
// without confinement.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <set>
#include <stdexcept>

#include "support/confined_child.hpp"
#include "support/temp_folder.hpp"
#include "worker/allowed_calls.hpp"

namespace orvane::test {
namespace {

// What the attempts need, made before a child is confined.
struct Scene {
  Scene()
      : victim([] { takeOn(Rights::user); }),
        path(folder.path() + "/file"),
        file(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666)),
        victimHandle(static_cast<int>(syscall(SYS_pidfd_open, victim.pid(), 0))) {
    chmod(folder.path().c_str(), 0777);
    chmod(path.c_str(), 0666);
    socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, sockets.data());
    bound = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    address.sun_family = AF_UNIX;
    const std::string name = folder.path() + "/socket";
    name.copy(address.sun_path, sizeof(address.sun_path) - 1);
    if (bind(bound, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
      throw std::runtime_error("cannot bind " + name);
    }
    chmod(name.c_str(), 0777);
    unconnected = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  }
  ~Scene() {
    for (const int fd : {file, victimHandle, sockets[0], sockets[1], bound, unconnected}) {
      close(fd);
    }
  }
  Scene(const Scene&) = delete;
  Scene& operator=(const Scene&) = delete;

  const sockaddr* socketAddress() const { return reinterpret_cast<const sockaddr*>(&address); }

  TempFolder folder;
  IdleProcess victim;
  std::string path;
  int file;
  int victimHandle;
  std::array<int, 2> sockets = {};
  int bound;
  int unconnected;
  sockaddr_un address = {};
};

int errorOf(long result) {
  return result < 0 ? errno : 0;
}

// Ends the new process, and waits for it.
int endChild(pid_t child) {
  if (child == 0) {
    _exit(0);
  }
  return child < 0 ? errno : errorOf(waitpid(child, nullptr, 0));
}

// Each returns an errno, or 0 where it succeeded.
struct Attempt {
  const char* name;
  int call;
  int (*make)(const Scene&);
};

void* const kAnywhere = nullptr;
constexpr uid_t kSame = static_cast<uid_t>(-1);

const Attempt kAttempts[] = {
    {"OpensAPath", SYS_openat,
     [](const Scene& scene) { return errorOf(::open(scene.path.c_str(), O_RDONLY)); }},
    {"OpensAPathByTheOldCall", SYS_open,
     [](const Scene& scene) { return errorOf(syscall(SYS_open, scene.path.c_str(), O_RDONLY)); }},
    {"OpensItsMemoryByPath", SYS_openat,
     [](const Scene&) { return errorOf(::open("/proc/self/mem", O_RDWR)); }},
    {"CreatesAFile", SYS_creat,
     [](const Scene& scene) { return errorOf(syscall(SYS_creat, scene.path.c_str(), 0600)); }},
    {"LooksAtAPath", SYS_newfstatat,
     [](const Scene& scene) {
       struct stat status = {};
       return errorOf(syscall(SYS_newfstatat, AT_FDCWD, scene.path.c_str(), &status, 0));
     }},
    {"RemovesAName", SYS_unlink,
     [](const Scene& scene) { return errorOf(unlink(scene.path.c_str())); }},
    {"RenamesAFile", SYS_rename,
     [](const Scene& scene) {
       return errorOf(rename(scene.path.c_str(), (scene.path + "-").c_str()));
     }},
    {"ChangesTheOwnerOfADescriptor", SYS_fchown,
     [](const Scene& scene) { return errorOf(fchown(scene.file, kSame, kSame)); }},
    {"MakesAMemoryFile", SYS_memfd_create,
     [](const Scene&) { return errorOf(memfd_create("file", 0)); }},
    {"LetsAnAppendOnlyFileBeRewritten", SYS_fcntl,
     [](const Scene& scene) { return errorOf(fcntl(scene.file, F_SETFL, 0)); }},
    {"CutsAFileOff", SYS_ftruncate,
     [](const Scene& scene) { return errorOf(ftruncate(scene.file, 0)); }},
    {"MakesAHoleInAFile", SYS_fallocate,
     [](const Scene& scene) { return errorOf(fallocate(scene.file, 0, 0, 1)); }},
    {"DuplicatesADescriptor", SYS_dup, [](const Scene& scene) { return errorOf(dup(scene.file)); }},
    {"ReplacesADescriptor", SYS_dup2,
     [](const Scene& scene) { return errorOf(dup2(scene.file, scene.sockets[0])); }},
    {"ControlsADevice", SYS_ioctl,
     [](const Scene& scene) {
       int waiting = 0;
       return errorOf(ioctl(scene.sockets[0], FIONREAD, &waiting));
     }},
    {"MakesASocket", SYS_socket,
     [](const Scene&) { return errorOf(socket(AF_UNIX, SOCK_STREAM, 0)); }},
    {"ConnectsASocket", SYS_connect,
     [](const Scene& scene) {
       return errorOf(connect(scene.unconnected, scene.socketAddress(), sizeof(scene.address)));
     }},
    {"SendsToAnAddress", SYS_sendto,
     [](const Scene& scene) {
       return errorOf(
           sendto(scene.unconnected, "x", 1, 0, scene.socketAddress(), sizeof(scene.address)));
     }},
    {"SendsADescriptor", SYS_sendmsg,
     [](const Scene& scene) {
       char byte = 0;
       iovec part = {&byte, 1};
       msghdr message = {};
       message.msg_iov = &part;
       message.msg_iovlen = 1;
       return errorOf(sendmsg(scene.sockets[0], &message, 0));
     }},
    {"StartsAProgram", SYS_execve,
     [](const Scene&) {
       char name[] = "true";
       char* arguments[] = {name, nullptr};
       return errorOf(execve("/bin/true", arguments, nullptr));
     }},
    {"Forks", SYS_fork,
     [](const Scene&) { return endChild(static_cast<pid_t>(syscall(SYS_fork))); }},
    {"Clones", SYS_clone,
     [](const Scene&) {
       return endChild(static_cast<pid_t>(syscall(SYS_clone, SIGCHLD, kAnywhere, 0, 0, 0)));
     }},
    {"SignalsAProcess", SYS_kill,
     [](const Scene& scene) { return errorOf(kill(scene.victim.pid(), SIGCONT)); }},
    {"SignalsAThreadOfAnotherProcess", SYS_tgkill,
     [](const Scene& scene) {
       return errorOf(syscall(SYS_tgkill, scene.victim.pid(), scene.victim.pid(), SIGCONT));
     }},
    {"SignalsByHandle", SYS_pidfd_send_signal,
     [](const Scene& scene) {
       return errorOf(syscall(SYS_pidfd_send_signal, scene.victimHandle, SIGCONT, nullptr, 0));
     }},
    {"PinsAProcess", SYS_pidfd_open,
     [](const Scene& scene) { return errorOf(syscall(SYS_pidfd_open, scene.victim.pid(), 0)); }},
    {"TracesAProcess", SYS_ptrace,
     [](const Scene& scene) {
       return errorOf(ptrace(PTRACE_SEIZE, scene.victim.pid(), nullptr, nullptr));
     }},
    {"WritesIntoAnotherProcess", SYS_process_vm_writev,
     [](const Scene& scene) {
       static char target = 0;  // where a forked process has it as well
       char byte = 1;
       const iovec from = {&byte, 1};
       const iovec to = {&target, 1};
       return errorOf(process_vm_writev(scene.victim.pid(), &from, 1, &to, 1, 0));
     }},
    {"MapsExecutableMemory", SYS_mmap,
     [](const Scene&) {
       return mmap(nullptr, 4096, PROT_READ | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) ==
                      MAP_FAILED
                  ? errno
                  : 0;
     }},
    {"MakesMemoryExecutable", SYS_mprotect,
     [](const Scene&) {
       void* page = mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
       return errorOf(mprotect(page, 4096, PROT_READ | PROT_EXEC));
     }},
    {"MakesSystemVSharedMemory", SYS_shmget,
     [](const Scene&) {
       const int id = shmget(IPC_PRIVATE, 4096, 0600);
       return id < 0 ? errno : errorOf(shmctl(id, IPC_RMID, nullptr));
     }},
    {"BecomesTraceable", SYS_prctl,
     [](const Scene&) { return errorOf(prctl(PR_SET_DUMPABLE, 1)); }},
    {"HandlesASignal", SYS_rt_sigaction,
     [](const Scene&) { return signal(SIGUSR1, SIG_IGN) == SIG_ERR ? errno : 0; }},
    {"ChangesItsUser", SYS_setresuid,
     [](const Scene&) { return errorOf(setresuid(kSame, kSame, kSame)); }},
    {"ChangesItsLimits", SYS_prlimit64,
     [](const Scene&) { return errorOf(syscall(SYS_prlimit64, 0, 0, nullptr, nullptr)); }},
    {"LoadsAnotherFilter", SYS_seccomp,
     [](const Scene&) {
       const std::uint32_t action = SECCOMP_RET_ALLOW;
       return errorOf(syscall(SYS_seccomp, SECCOMP_GET_ACTION_AVAIL, 0, &action));
     }},
};

Confinement with(bool landlock, bool seccomp) {
  Confinement confinement;
  confinement.landlock = landlock;
  confinement.seccomp = seccomp;
  return confinement;
}

class RefusedCall : public testing::TestWithParam<Attempt> {};

// A sanitizer's own calls are allowed in its build.
bool isInstrumentation(int call) {
  return std::ranges::any_of(orvaned::instrumentationCalls(),
                             [call](const auto& allowed) { return allowed.number == call; });
}

TEST_P(RefusedCall, SucceedsWithoutConfinement) {
  const Scene scene;
  EXPECT_EQ(runInChild([&] {
              takeOn(Rights::user);
              return GetParam().make(scene);
            }),
            "exit 0");
}

TEST_P(RefusedCall, EndsAConfinedProcessAndLeavesItsNumber) {
  const Scene scene;
  const Outcome outcome =
      runConfined(Rights::user, with(false, true), [&] { return GetParam().make(scene); });
  if (isInstrumentation(GetParam().call)) {
    EXPECT_NE(outcome.how, "signal 31");
  } else {
    EXPECT_EQ(outcome.how, "signal 31");
    EXPECT_EQ(outcome.refusedCall, GetParam().call) << orvaned::nameOfCall(outcome.refusedCall);
  }
  EXPECT_TRUE(scene.victim.isAlive());
}

INSTANTIATE_TEST_SUITE_P(Each, RefusedCall, testing::ValuesIn(kAttempts),
                         [](const auto& attempt) { return attempt.param.name; });

// By the numbers that 32-bit programs use.
int callAsI386() {
  long result = 20;  // getpid
  asm volatile("int $0x80" : "+a"(result) : : "memory", "r8", "r9", "r10", "r11");
  return result > 0 ? 0 : 1;
}

TEST(RefusedArchitecture, I386NumbersEndAConfinedProcess) {
  const std::string unconfined = runInChild(callAsI386);
  // A kernel without 32-bit programs has no such call to refuse.
  EXPECT_EQ(runConfined(Rights::user, with(true, true), callAsI386).how,
            unconfined == "exit 0" ? "signal 31" : unconfined);
}

TEST(RefusedArchitecture, X32NumbersEndAConfinedProcess) {
  constexpr long kX32 = 0x40000000;
  const auto call = [] { return syscall(kX32 | SYS_getpid) == -1 && errno == ENOSYS ? 0 : 1; };
  EXPECT_NE(runInChild(call), "signal 31");
  const Outcome outcome = runConfined(Rights::user, with(true, true), call);
  EXPECT_EQ(outcome.how, "signal 31");
  EXPECT_EQ(outcome.refusedCall, -1);
}

// Landlock alone stops what opens a path; the process goes on.
TEST(LandlockAlone, RefusesPaths) {
  const Scene scene;
  const auto run = [&](bool landlock, const std::function<int()>& body) {
    return runConfined(Rights::user, with(landlock, false), body).how;
  };
  const auto openFile = [&] { return errorOf(::open(scene.path.c_str(), O_RDONLY)); };
  const auto openFolder = [&] { return errorOf(::open(scene.folder.path().c_str(), O_RDONLY)); };
  const auto removeFile = [&] { return errorOf(unlink(scene.path.c_str())); };
  const std::string refused = "exit " + std::to_string(EACCES);
  EXPECT_EQ(run(true, openFile), refused);
  EXPECT_EQ(run(true, openFolder), refused);
  EXPECT_EQ(run(true, removeFile), refused);
  EXPECT_EQ(run(false, openFile), "exit 0");
  EXPECT_EQ(run(false, openFolder), "exit 0");
  EXPECT_EQ(run(false, removeFile), "exit 0");
}

TEST(AllowedCalls, StandOnceInTheTableEachWithAReason) {
  std::set<int> numbers;
  for (const auto& calls : {orvaned::workerCalls(), orvaned::openingCalls()}) {
    for (const auto& call : calls) {
      EXPECT_TRUE(numbers.insert(call.number).second) << orvaned::nameOfCall(call.number);
      EXPECT_STRNE(call.reason, "") << orvaned::nameOfCall(call.number);
    }
  }
}

TEST(AllowedCalls, HaveNames) {
  EXPECT_EQ(orvaned::nameOfCall(SYS_socket), "socket");
  EXPECT_EQ(orvaned::nameOfCall(100000), "100000");
}

}  // namespace
}  // namespace orvane::test
