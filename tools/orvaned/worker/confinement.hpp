#pragma once

#include <sys/types.h>

#include <atomic>
#include <optional>
#include <string>
#include <vector>

#include "confinement_settings.hpp"

namespace orvaned {

// A worker reads memory that a producer can change at any moment, through a queue that was not made
// for that. It must be assumed that a hostile producer takes its worker over. What such a worker
// can then do is decided here: next to nothing. SECURITY.md says what is promised, and on which
// kernels.
//
//   closeAllBut({broker, lease});
//   dropRights(confinement, supervisor);
//   restrictCalls(confinement, &heartbeat.refusedCall);
//   // now the producer's first byte

// Gives up, for ever: the user, its groups, all capabilities, new privileges through execve(), core
// dumps and being traced by others of the same user, and with Landlock every path. `parent` is the
// process whose end is to end this one: a change of user makes the kernel forget it, so that what
// PR_SET_PDEATHSIG had been set to is set again. `allowedFile` is a descriptor (O_PATH) of the one
// regular file that may still be opened, for reading and writing; -1: none. Landlock that the
// kernel does not have is left out. Throws std::system_error.
void dropRights(const Confinement& confinement, pid_t parent, int allowedFile = -1);

// From now on this process ends with SIGSYS at a system call that allowed_calls.hpp does not list;
// `refusedCall`, in memory shared with the parent, then holds the call's number. A process that has
// been taken over can keep the number from being stored, but not itself from being ended. With
// `mayOpen`, files may still be opened, and this function called once more, without it. Returns
// whether calls are refused now: not where confinement or kernel are without seccomp. Throws
// std::system_error.
bool restrictCalls(const Confinement& confinement, std::atomic<int>* refusedCall,
                   bool mayOpen = false);

// Closes all that was inherited but these, and standard error: a worker that kept another lease's
// connection could speak in its name. To be called before dropRights(). Throws std::system_error.
void closeAllBut(std::vector<int> kept);

static_assert(std::atomic<int>::is_always_lock_free, "it is shared between processes");

// The name of a refused call, such as "socket"; its number where it has no name.
std::string nameOfCall(int number);

// A line that the log is to have at start.
struct ConfinementLine {
  bool isWarning;
  std::string text;
};

// Tries all of it in a child process, and says what is in force. Throws std::runtime_error when the
// system refuses a part; the text names the option that goes on without it. What the kernel does
// not have is a warning.
std::vector<ConfinementLine> tryConfinement(const Confinement& confinement);

struct WorkerUserChoice {
  std::optional<WorkerUser> user;  // nothing: the server's own
  std::string warning;             // empty: none
};

// Whom the workers run as, where --worker-user was given `name`; empty: it was not given. Only a
// server that runs as root has a choice; its default is the user orvaned, or 65534 where there is
// none. Throws std::invalid_argument.
WorkerUserChoice chooseWorkerUser(const std::string& name);

}  // namespace orvaned
