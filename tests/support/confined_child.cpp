#include "support/confined_child.hpp"

#include <grp.h>
#include <linux/capability.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <exception>
#include <new>
#include <system_error>

#include "support/child.hpp"

namespace orvane::test {
namespace {

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

void becomeServerUser() {
  if (geteuid() != 0) {
    return;
  }
  if (setgroups(0, nullptr) != 0 || setresgid(kServerUser, kServerUser, kServerUser) != 0 ||
      setresuid(kServerUser, kServerUser, kServerUser) != 0) {
    fail("become the server's user");
  }
}

// As a service manager does: kept over the change of user, and then all but these two given up.
void becomeService() {
  if (prctl(PR_SET_KEEPCAPS, 1) != 0) {
    fail("PR_SET_KEEPCAPS");
  }
  becomeServerUser();
  const __u32 two = 1U << CAP_CHOWN | 1U << CAP_FOWNER;
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  const __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3] = {{two, two, two}, {0, 0, 0}};
  if (syscall(SYS_capset, &header, sets) != 0) {
    fail("capset");
  }
  for (const unsigned long capability : {CAP_CHOWN + 0UL, CAP_FOWNER + 0UL}) {
    if (prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_RAISE, capability, 0, 0) != 0) {
      fail("PR_CAP_AMBIENT_RAISE");
    }
  }
}

}  // namespace

std::vector<Rights> rightsHere() {
  return geteuid() == 0 ? std::vector{Rights::root, Rights::user, Rights::service}
                        : std::vector{Rights::user};
}

std::string nameOf(Rights rights) {
  switch (rights) {
    case Rights::root:
      return "Root";
    case Rights::user:
      return "User";
    default:
      return "Service";
  }
}

void takeOn(Rights rights) {
  if (rights == Rights::root) {
    const gid_t other = kServerUser;  // root's processes have other groups besides
    if (setgroups(1, &other) != 0) {
      fail("setgroups");
    }
  } else if (rights == Rights::user) {
    becomeServerUser();
  } else if (rights == Rights::service) {
    becomeService();
  }
  // A change of user hides a process from others of that user, as a service that was started by
  // execve() is not hidden.
  prctl(PR_SET_DUMPABLE, 1);
}

Confinement confinementOf(Rights rights) {
  Confinement confinement;
  if (rights == Rights::root) {
    confinement.user = orvaned::WorkerUser{kWorkerUser, kWorkerUser};
  }
  return confinement;
}

SharedNumber::SharedNumber() : number(nullptr) {
  void* page =
      mmap(nullptr, sizeof(*number), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (page == MAP_FAILED) {
    fail("mmap");
  }
  number = new (page) std::atomic<int>(-1);
}

SharedNumber::~SharedNumber() {
  munmap(number, sizeof(*number));
}

std::string runInChild(const std::function<int()>& body) {
  Child child([&] {
    try {
      _exit(body());
    } catch (const std::exception& e) {
      std::fprintf(stderr, "child: %s\n", e.what());
      _exit(kThrew);
    }
  });
  return child.nextChange();
}

Outcome runConfined(Rights rights, const Confinement& confinement,
                    const std::function<int()>& body) {
  const SharedNumber refusedCall;
  const pid_t self = getpid();
  const std::string how = runInChild([&] {
    takeOn(rights);
    dropRights(confinement, self);
    restrictCalls(confinement, refusedCall.get());
    return body();
  });
  return {how, *refusedCall.get()};
}

IdleProcess::IdleProcess(const std::function<void()>& prepare) {
  int ready[2] = {};
  if (pipe(ready) != 0) {
    fail("pipe");
  }
  const pid_t self = getpid();
  id = fork();
  if (id == 0) {
    prepare();
    prctl(PR_SET_DUMPABLE, 1);  // which a change of user clears
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY);
    close(ready[0]);
    close(ready[1]);
    while (getppid() == self) {
      pause();
    }
    _exit(0);
  }
  close(ready[1]);
  char nothing = 0;
  [[maybe_unused]] const ssize_t end = read(ready[0], &nothing, 1);  // it has taken on its rights
  close(ready[0]);
  if (id < 0) {
    fail("fork");
  }
}

IdleProcess::~IdleProcess() {
  kill(id, SIGKILL);
  waitpid(id, nullptr, 0);
}

bool IdleProcess::isAlive() const {
  siginfo_t ended = {};
  return waitid(P_PID, static_cast<id_t>(id), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
         ended.si_pid == 0;
}

}  // namespace orvane::test
