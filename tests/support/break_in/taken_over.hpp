#pragma once

#include <atomic>
#include <cstddef>
#include <string_view>

#include "support/break_in/attack.hpp"

namespace orvane::break_in {

constexpr int kNoResult = -1;

// What a test and the worker that it takes over share: a file that both have mapped.
struct Shared {
  std::atomic<bool> armed;        // the next worker that takes a message runs the attack
  std::atomic<int> result;        // its errno; kNoResult: it did not come back
  std::atomic<bool> memoryIsOut;  // in the supervisor
  char name[64];
  char otherStream[256];
  char store[256];
  char otherQueue[256];
  char serverSocket[256];
  pid_t other;
  pid_t supervisor;

  AttackPlan plan() const {
    AttackPlan attack;
    attack.otherStream = otherStream;
    attack.store = store;
    attack.otherQueue = otherQueue;
    attack.serverSocket = serverSocket;
    attack.other = other;
    attack.supervisor = supervisor;
    return attack;
  }
};

}  // namespace orvane::break_in
