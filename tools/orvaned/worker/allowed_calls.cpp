#include "worker/allowed_calls.hpp"

#include <sys/syscall.h>

namespace orvaned {
namespace {

constexpr AllowedCall kWorkerCalls[] = {
    // The queues: they are mapped already, and their locks are robust mutexes.
    {SYS_futex, "waits for a queue's lock, and wakes a producer that waits for it"},
    {SYS_sched_yield, "a queue's lock spins before it waits"},
    {SYS_nanosleep, "the same, on kernels where glibc sleeps by this call"},
    {SYS_clock_nanosleep, "the same"},

    // Time, for the log, the totals and the idle limit. The vDSO asks the kernel where it cannot
    // read the clock itself.
    {SYS_clock_gettime, "the time, without the vDSO"},
    {SYS_gettimeofday, "the same"},

    // Waiting for the server's end and the producer's.
    {SYS_poll, "waits for the lease's connection and for the broker"},
    {SYS_ppoll, "the same, between two looks at an empty queue"},
    {SYS_restart_syscall, "the kernel continues a wait that a stop and continue interrupted"},

    // The broker and the lease's connection: sockets that are connected already.
    {SYS_sendto, "requests, log lines and receipts", Only::withoutAddress},
    {SYS_recvfrom, "answers"},
    {SYS_recvmsg, "answers with a descriptor"},

    // The stream's files, which come as descriptors. Nothing here changes a file's flags or its
    // length, makes a second descriptor of it or reaches it by name.
    {SYS_write, "records, and log lines"},
    {SYS_writev, "a record's header and its data at once"},
    {SYS_read, "a stream that a dead server left, to finish it"},
    {SYS_lseek, "the same"},
    {SYS_fstat, "how long a file is"},
    {SYS_fdatasync, "--sync always and segment"},
    {SYS_fsync, "the same, for a file that is new"},
    {SYS_sync_file_range, "starts writing back what the next sync waits for"},
    {SYS_close, "a segment's file, when the next one begins"},

    // Memory. Never executable: what a producer writes stays data.
    {SYS_brk, "malloc()"},
    {SYS_mmap, "malloc(), and buffers between pages without access", Only::notExecutable},
    {SYS_mprotect, "the same", Only::notExecutable},
    {SYS_mremap, "realloc() of much memory"},
    {SYS_munmap, "free() of much memory"},
    {SYS_madvise, "free() gives pages back"},

    // The end: by itself, by an uncaught exception, by a refused call.
    {SYS_rt_sigreturn, "returns from a signal's handler"},
    {SYS_rt_sigprocmask, "abort() lets its signal through"},
    {SYS_getpid, "abort() and the handler of refused calls signal this process"},
    {SYS_gettid, "the same"},
    {SYS_tgkill, "the same", Only::thisProcess},
    {SYS_exit, "ends"},
    {SYS_exit_group, "ends"},
};

constexpr AllowedCall kOpeningCalls[] = {
    {SYS_openat, "opens the one queue; Landlock allows that file only"},
    {SYS_newfstatat, "how large the queue is: glibc's fstat() up to 2.38 asks by this call"},
    {SYS_seccomp, "takes this table's calls away once the queue is open"},
};

#if defined(__has_feature)
#define ORVANE_HAS_FEATURE(name) __has_feature(name)
#else
#define ORVANE_HAS_FEATURE(name) 0
#endif

// A sanitizer looks at its own process when it starts, at an exception and at an error, and
// coverage opens its files at the end. Such a build is for tests: it can open paths, unless
// Landlock forbids them, and its confinement protects nothing.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(ORVANE_COVERAGE) || \
    ORVANE_HAS_FEATURE(address_sanitizer) || ORVANE_HAS_FEATURE(thread_sanitizer) ||             \
    ORVANE_HAS_FEATURE(undefined_behavior_sanitizer)
constexpr AllowedCall kInstrumentationCalls[] = {
    {SYS_sigaltstack, "an exception: which stack is in use"},
    {SYS_rt_sigaction, "an error: the handlers that it had set"},
    {SYS_openat, "an error: /proc/self/maps, the program's symbols; coverage: its files"},
    {SYS_newfstatat, "the same"},
    {SYS_readlink, "the same: the program's name"},
    {SYS_readlinkat, "the same"},
    {SYS_access, "the same"},
    {SYS_ioctl, "an error: whether standard error is a terminal"},
    {SYS_pipe, "an error: whether memory can be read"},
    {SYS_pipe2, "the same"},
    {SYS_uname, "an error: what system this is"},
    {SYS_getrandom, "a map of addresses"},
    {SYS_prlimit64, "how large the stack is"},
    {SYS_getrlimit, "the same"},
    {SYS_prctl, "the names of threads and of memory"},
    {SYS_sched_getaffinity, "how many processors there are"},
    {SYS_set_robust_list, "a thread of the sanitizer"},
    {SYS_getrusage, "how much memory is in use"},
    {SYS_getppid, "an error: whose process this is"},
#ifdef ORVANE_COVERAGE
    {SYS_getcwd, "where coverage has its files"},
    {SYS_mkdir, "the folders of these files"},
    {SYS_fcntl, "locks them"},
    {SYS_ftruncate, "writes them again"},
    {SYS_pread64, "reads them"},
#endif
};
#else
constexpr std::span<const AllowedCall> kInstrumentationCalls;
#endif

}  // namespace

std::span<const AllowedCall> workerCalls() {
  return kWorkerCalls;
}

std::span<const AllowedCall> openingCalls() {
  return kOpeningCalls;
}

std::span<const AllowedCall> instrumentationCalls() {
  return kInstrumentationCalls;
}

}  // namespace orvaned
