#pragma once

#include <poll.h>
#include <sys/time.h>
#include <time.h>

#include <functional>
#include <string>
#include <vector>

// What the system's calls, which this executable defines itself, do and have seen in the test's
// thread. Each test begins with a new one of these.
namespace orvane::test {

struct ReplacedCalls {
  // The next call of this name fails so, once.
  std::string failing = {};
  int failure = 0;

  // Done before the next send.
  std::function<void()> beforeSend = {};

  // Done before the next shutdown.
  std::function<void()> beforeShutdown = {};

  // So many polls say that there is something to receive, though there may be nothing.
  int falseAlarms = 0;

  // A packet comes without some of its files, as if this process had no room for them.
  bool losesFiles = false;

  // Each look at the wall clock finds it a day later.
  bool wallClockJumps = false;

  // Each look at the clock that nobody sets finds it a day later.
  bool steadyClockJumps = false;

  std::vector<unsigned int> memfdFlags = {};
  std::vector<timespec> pauses = {};
  std::vector<int> sendFlags = {};
  std::vector<int> recvFlags = {};
  std::vector<timeval> sendLimits = {};
  std::vector<pollfd> polled = {};
  std::vector<int> pollTimeouts = {};
};

ReplacedCalls& replacedCalls();

inline void failNext(const std::string& call, int error) {
  replacedCalls().failing = call;
  replacedCalls().failure = error;
}

}  // namespace orvane::test
