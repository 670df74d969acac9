#pragma once

#include <sys/types.h>

#include <atomic>
#include <string>
#include <vector>

#include "confinement_settings.hpp"

namespace orvaned {

// A worker reads memory that a producer can change at any moment, through a queue that was not
// designed for hostile users. So we assume that a hostile producer can take its worker over. These
// functions leave such a worker almost no rights. SECURITY.md lists what is promised, and on which
// kernels.
//
//   closeAllBut({broker, lease});
//   dropRights(confinement, supervisor);
//   restrictCalls(confinement, &heartbeat.refusedCall);
//   // now the producer's first byte

// Gives up permanently: the user, its groups, all capabilities, new privileges through execve(),
// core dumps, being traced by other processes of the same user, and with Landlock every path.
// `parent` is the process whose end is to end this one. A change of user makes the kernel forget
// PR_SET_PDEATHSIG, so it is set again. `allowedFile` is a descriptor (O_PATH) of the one regular
// file that may still be opened, for reading and writing; -1: none. If the kernel has no Landlock,
// that part is left out. Throws std::system_error.
void dropRights(const Confinement& confinement, pid_t parent, int allowedFile = -1);

// From now on a system call that allowed_calls.hpp does not list ends this process with SIGSYS;
// `refusedCall`, in memory shared with the parent, then holds the call's number. A process that was
// taken over can suppress the number, but cannot avoid its end. With `mayOpen`, files may still be
// opened, and this function may be called once more, without it. Returns whether calls
// are refused now: false if `confinement` or the kernel has no seccomp. Throws std::system_error.
bool restrictCalls(const Confinement& confinement, std::atomic<int>* refusedCall,
                   bool mayOpen = false);

// Closes all inherited files except these and standard error: a worker that kept another lease's
// connection could send in its name. Call it before dropRights(). Throws std::system_error.
void closeAllBut(std::vector<int> kept);

// From now on the end of `parent` sends this new process `signal`, also if `parent` has already
// ended.
void endWith(pid_t parent, int signal);

static_assert(std::atomic<int>::is_always_lock_free, "it is shared between processes");

// The name of a refused call, such as "socket", or its number if it has no name.
std::string nameOfCall(int number);

}  // namespace orvaned
