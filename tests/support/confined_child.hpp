#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "worker/confinement.hpp"

namespace orvane::test {

using orvaned::Confinement;

// Whose rights a server has.
enum class Rights {
  root,     // its workers run as another user
  user,     // an ordinary user's
  service,  // those of the packaged service: an ordinary user's, CAP_CHOWN and CAP_FOWNER
};

// Those that this process can take on: all, when it is root's.
std::vector<Rights> rightsHere();

std::string nameOf(Rights rights);

constexpr uid_t kServerUser = 65534;  // of a server that is not root's
constexpr uid_t kWorkerUser = 65533;  // of the workers of a root server

// Takes on the rights. For a child process.
void takeOn(Rights rights);

// How the workers of a server with these rights are confined by default.
Confinement confinementOf(Rights rights);

// Shared with the children that are forked afterwards.
class SharedNumber {
 public:
  SharedNumber();
  ~SharedNumber();
  SharedNumber(const SharedNumber&) = delete;
  SharedNumber& operator=(const SharedNumber&) = delete;

  std::atomic<int>* get() const { return number; }

 private:
  std::atomic<int>* number;
};

struct Outcome {
  std::string how;  // "exit 0", "signal 31"
  int refusedCall;  // -1: none
};

constexpr int kThrew = 99;  // the exit code after an exception

// Runs `body` in a separate child process, which exits with what it returns.
std::string runInChild(const std::function<int()>& body);

// The same, in a child with these rights that has confined itself as a worker does.
Outcome runConfined(Rights rights, const Confinement& confinement,
                    const std::function<int()>& body);

// A process that does nothing, after `prepare`, and ends with this object.
class IdleProcess {
 public:
  explicit IdleProcess(const std::function<void()>& prepare);
  ~IdleProcess();
  IdleProcess(const IdleProcess&) = delete;
  IdleProcess& operator=(const IdleProcess&) = delete;

  pid_t pid() const { return id; }
  bool isAlive() const;

 private:
  pid_t id;
};

}  // namespace orvane::test
