#include "crowd.hpp"

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <stdexcept>

#include "two_processes.hpp"

namespace bench {
namespace {

constexpr unsigned kMostSeconds = 60;

void sendSign(int connection) {
  const char sign = 0;
  if (send(connection, &sign, sizeof sign, MSG_NOSIGNAL) != sizeof sign) {
    throw std::runtime_error("one of the processes ended too early");
  }
}

void receiveSign(int connection) {
  char sign = 0;
  if (recv(connection, &sign, sizeof sign, 0) != sizeof sign) {
    throw std::runtime_error("one of the processes failed");
  }
}

}  // namespace

void Crowd::Member::await() const {
  sendSign(connection);
  receiveSign(connection);
}

Crowd::Crowd(unsigned count, const std::function<void(const Member&)>& work) {
  for (unsigned i = 0; i < count; ++i) {
    std::array<int, 2> ends = {};
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) {
      failWithErrno("cannot make a socket pair");
    }
    const pid_t pid = startProcess([&] { work(Member(i, ends[1])); }, kMostSeconds);
    close(ends[1]);  // so that the end of the process can be seen
    processes.push_back({pid, ends[0]});
  }
}

Crowd::~Crowd() {
  for (const Process& one : processes) {
    kill(one.pid, SIGKILL);
    waitpid(one.pid, nullptr, 0);
    close(one.connection);
  }
}

void Crowd::awaitAll() const {
  for (const Process& one : processes) {
    pollfd readable = {one.connection, POLLIN, {}};
    if (poll(&readable, 1, kMostSeconds * 1000) <= 0) {
      throw std::runtime_error("one of the processes took too long");
    }
    receiveSign(one.connection);
  }
}

void Crowd::letGo() const {
  for (const Process& one : processes) {
    sendSign(one.connection);
  }
}

}  // namespace bench
