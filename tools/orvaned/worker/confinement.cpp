#include "worker/confinement.hpp"

#include <grp.h>
#include <linux/capability.h>
#include <linux/seccomp.h>
#include <seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <memory>
#include <system_error>
#include <utility>

#include "worker/allowed_calls.hpp"
#include "worker/landlock.hpp"

namespace orvaned {
namespace {

[[noreturn]] void fail(int error, const std::string& what) {
  throw std::system_error(error, std::generic_category(), what);
}

// Calls that read a file when they are first used.
void readFilesOfTheLibrary() {
  tzset();  // for gmtime_r() and localtime_r()
}

void becomeUser(const WorkerUser& to) {
  if (setgroups(0, nullptr) != 0 || setresgid(to.group, to.group, to.group) != 0 ||
      setresuid(to.user, to.user, to.user) != 0) {
    fail(errno,
         "cannot become user " + std::to_string(to.user) + " (--worker-user root goes on as root)");
  }
}

// The kernel removes the ambient ones as well: they are always a part of the permitted ones.
void dropCapabilities() {
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  const __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3] = {};
  if (syscall(SYS_capset, &header, none) != 0 && errno != ENOSYS) {
    fail(errno, "the system refuses capset (--without capset goes on without it)");
  }
}

constexpr int kFromSeccomp = 1;  // the kernel's SYS_SECCOMP, which glibc does not declare

bool handlesRefusedCalls = false;
std::atomic<int>* numberOfRefusedCall = nullptr;

void endAtRefusedCall(int, siginfo_t* info, void*) {
  if (info->si_code == kFromSeccomp && numberOfRefusedCall != nullptr) {
    numberOfRefusedCall->store(info->si_syscall);
  }
  // The handler is gone (SA_RESETHAND), so that this ends the process.
  syscall(SYS_tgkill, getpid(), syscall(SYS_gettid), SIGSYS);
}

void handleRefusedCalls(std::atomic<int>* refusedCall) {
  if (std::exchange(handlesRefusedCalls, true)) {
    return;  // and sigaction() is refused by now
  }
  numberOfRefusedCall = refusedCall;
  struct sigaction action = {};
  action.sa_sigaction = endAtRefusedCall;
  action.sa_flags = static_cast<int>(SA_SIGINFO | SA_RESETHAND | SA_NODEFER);
  sigaction(SIGSYS, &action, nullptr);
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGSYS);
  sigprocmask(SIG_UNBLOCK, &signals, nullptr);
}

// If seccomp() is refused, libseccomp tries prctl() instead, and that would hide the refusal.
bool kernelHasSeccomp() {
  syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, 0, nullptr);
  if (errno == ENOSYS || errno == EINVAL) {
    return false;
  }
  if (errno != EFAULT) {  // the answer to the null pointer
    fail(errno, "the system refuses seccomp (--without seccomp goes on without it)");
  }
  return true;
}

class Filter {
 public:
  Filter() : context(seccomp_init(SCMP_ACT_TRAP), seccomp_release) {
    if (context == nullptr) {
      fail(ENOMEM, "seccomp_init");
    }
    // A call by another architecture's numbers, i386 or x32, has no number to report.
    set(SCMP_FLTATR_ACT_BADARCH, SCMP_ACT_KILL_PROCESS);
    set(SCMP_FLTATR_CTL_NNP, 0);  // dropRights() did that, and prctl() may be refused by now
    set(SCMP_FLTATR_API_SYSRAWRC, 1);
    set(SCMP_FLTATR_CTL_OPTIMIZE, 2);  // a tree instead of a list: it is walked at every call
  }

  void allow(std::span<const AllowedCall> calls) {
    for (const AllowedCall& call : calls) {
      check(add(call));
    }
  }

  void load() {
    const int result = seccomp_load(context.get());
    if (result < 0) {
      fail(-result, "the system refuses seccomp (--without seccomp goes on without it)");
    }
  }

 private:
  int add(const AllowedCall& call) {
    switch (call.only) {
      case Only::notExecutable:
        return add(call, {2, SCMP_CMP_MASKED_EQ, PROT_EXEC, 0});
      case Only::withoutAddress:
        return add(call, {4, SCMP_CMP_EQ, 0, 0});
      case Only::thisProcess:
        return add(call, {0, SCMP_CMP_EQ, static_cast<scmp_datum_t>(getpid()), 0});
      default:
        return seccomp_rule_add_array(context.get(), SCMP_ACT_ALLOW, call.number, 0, nullptr);
    }
  }

  int add(const AllowedCall& call, const scmp_arg_cmp& condition) {
    return seccomp_rule_add_array(context.get(), SCMP_ACT_ALLOW, call.number, 1, &condition);
  }

  void set(scmp_filter_attr attribute, std::uint32_t value) {
    check(seccomp_attr_set(context.get(), attribute, value));
  }

  static void check(int result) {
    if (result < 0) {
      fail(-result, "cannot make a list of system calls");
    }
  }

  std::unique_ptr<void, void (*)(scmp_filter_ctx)> context;
};

}  // namespace

void endWith(pid_t parent, int signal) {
  prctl(PR_SET_PDEATHSIG, signal);
  if (getppid() != parent) {
    raise(signal);  // the parent was gone before the line above
  }
}

void closeAllBut(std::vector<int> kept) {
  kept.push_back(STDERR_FILENO);
  std::sort(kept.begin(), kept.end());
  unsigned next = 0;  // the first descriptor that is not decided yet
  const auto closeUntil = [&next](unsigned last) {
    if (next <= last && syscall(SYS_close_range, next, last, 0) != 0) {
      fail(errno, "close_range");
    }
  };
  for (const int fd : kept) {
    if (fd > 0) {
      closeUntil(static_cast<unsigned>(fd) - 1);
    }
    next = static_cast<unsigned>(fd + 1);
  }
  closeUntil(std::numeric_limits<unsigned>::max());
}

void dropRights(const Confinement& confinement, pid_t parent, int allowedFile) {
  readFilesOfTheLibrary();
  int deathSignal = 0;
  prctl(PR_GET_PDEATHSIG, &deathSignal);
  if (confinement.user) {
    becomeUser(*confinement.user);
  }
  if (confinement.capabilities) {
    dropCapabilities();
  }
  if (deathSignal != 0) {
    endWith(parent, deathSignal);
  }
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) != 0) {
    fail(errno, "prctl");
  }
  if (confinement.landlock) {
    forbidPaths(landlockVersion(), allowedFile);
  }
}

bool restrictCalls(const Confinement& confinement, std::atomic<int>* refusedCall, bool mayOpen) {
  if (!confinement.seccomp || !kernelHasSeccomp()) {
    return false;
  }
  handleRefusedCalls(refusedCall);
  Filter filter;
  filter.allow(workerCalls());
  filter.allow(instrumentationCalls());
  if (mayOpen) {
    filter.allow(openingCalls());
  }
  filter.load();
  return true;
}

std::string nameOfCall(int number) {
  const std::unique_ptr<char, void (*)(void*)> name(
      seccomp_syscall_resolve_num_arch(SCMP_ARCH_NATIVE, number), std::free);
  return name != nullptr ? name.get() : std::to_string(number);
}

}  // namespace orvaned
