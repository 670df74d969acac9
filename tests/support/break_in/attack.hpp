#pragma once

#include <netinet/in.h>
#include <sys/types.h>

#include <span>
#include <string>

// What a hostile producer would have its worker do once it has taken it over. For tests only: a
// test looks for this code in the programs that are shipped.
namespace orvane::break_in {

// What there is to attack, and what a worker has.
struct AttackPlan {
  std::string otherStream;    // a file of another stream, in the store
  std::string store;          // its folder
  std::string otherQueue;     // another lease's queue, as a path
  std::string serverSocket;   // a Unix socket at which somebody listens
  sockaddr_in internet = {};  // a TCP socket at which somebody listens
  pid_t other = -1;           // another worker of the same user
  pid_t supervisor = -1;      // the worker's parent
  int otherHandle = -1;       // a pidfd of it that was inherited
  int appendOnly = -1;        // the worker's own capture
  int connection = -1;        // the worker's own connection
};

struct Attack {
  const char* name;
  int (*run)(const AttackPlan&);  // returns an errno; 0: it succeeded
};

std::span<const Attack> attacks();

// Runs the attack of that name in this process. Returns what it returns.
int attack(const char* name, const AttackPlan& plan);

}  // namespace orvane::break_in
