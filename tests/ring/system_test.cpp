#include "ring/system.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>
#include <thread>

#include "support/await.hpp"
#include "support/waiting_thread.hpp"

namespace orvane::test {
namespace {

using ring::LinuxSystem;

std::int64_t nanosecondsOf(clockid_t clock) {
  timespec time = {};
  clock_gettime(clock, &time);
  return time.tv_sec * 1'000'000'000 + time.tv_nsec;
}

TEST(LinuxSystemNow, IsTheClockThatNobodySets) {
  const std::int64_t before = nanosecondsOf(CLOCK_MONOTONIC);
  const std::int64_t now = LinuxSystem::now();
  EXPECT_LE(before, now);
  EXPECT_LE(now, nanosecondsOf(CLOCK_MONOTONIC));
}

// Each of two threads stores and then loads what the other one stores. With the fence at least one
// of them sees the other's store; without it, a processor keeps both stores back, sooner or later.
class TwoThreads {
 public:
  // How many times neither of them saw the other's store.
  int play() {
    std::thread thread([this] { playOne(1); });
    playOne(0);
    thread.join();
    return neither;
  }

 private:
  static constexpr int kRounds = 2000;
  static constexpr std::size_t kTurns = 200;  // in each round

  struct alignas(64) Side {
    std::atomic<int> meetings = 0;
    struct alignas(64) Turn {
      int stored = 0;
      int seen = 0;
    } turns[kTurns];
  };

  void playOne(std::size_t number) {
    Side& own = sides[number];
    const Side& other = sides[1 - number];
    for (int round = 0; round < kRounds; ++round) {
      meet(own, other);
      for (std::size_t turn = 0; turn < kTurns; ++turn) {
        const int& theirs = other.turns[turn].stored;
        // Not std::atomic: without optimization, its calls leave the store too much time.
        __atomic_store_n(&own.turns[turn].stored, 1, __ATOMIC_RELAXED);
        LinuxSystem::fence();
        own.turns[turn].seen = __atomic_load_n(&theirs, __ATOMIC_RELAXED);
      }
      meet(own, other);
      if (number == 0) {
        countAndReset();
      }
    }
  }

  static void meet(Side& own, const Side& other) {
    const int meeting = ++own.meetings;
    for (int looks = 1; other.meetings < meeting; ++looks) {
      if (looks % 10'000 == 0) {
        std::this_thread::yield();
      }
    }
  }

  void countAndReset() {
    for (std::size_t turn = 0; turn < kTurns; ++turn) {
      Side::Turn& one = sides[0].turns[turn];
      Side::Turn& other = sides[1].turns[turn];
      neither += one.seen + other.seen == 0 ? 1 : 0;
      one.stored = 0;
      other.stored = 0;
    }
  }

  Side sides[2];
  int neither = 0;
};

TEST(LinuxSystemFence, OrdersAStoreBeforeALoad) {
  EXPECT_EQ(std::make_unique<TwoThreads>()->play(), 0);
}

constexpr std::uint64_t kSeen = 0x70007;  // more than 16 bits

TEST(LinuxSystemWait, IsNoLongerThanItMayBe) {
  const std::atomic<std::uint64_t> counter = 0x1'0000'0000 + kSeen;  // its low half is compared
  const std::int64_t begin = LinuxSystem::now();
  for (int i = 0; i < 40; ++i) {
    LinuxSystem::wait(counter, kSeen, 1'000'000);
  }
  EXPECT_GE(LinuxSystem::now() - begin, 40 * 1'000'000);
  EXPECT_LT(LinuxSystem::now() - begin, std::int64_t{30} * 1'000'000'000);
}

TEST(LinuxSystemWait, IsOverAtOnceWhenTheCounterHasMoved) {
  const std::atomic<std::uint64_t> counter = kSeen;
  const std::int64_t begin = LinuxSystem::now();
  for (int i = 0; i < 400; ++i) {
    LinuxSystem::wait(counter, kSeen % 65536, 900'000'000);
  }
  EXPECT_LT(LinuxSystem::now() - begin, std::int64_t{100} * 1'000'000'000);
}

TEST(LinuxSystemWake, ReturnsWhetherSomeoneSlept) {
  const std::atomic<std::uint64_t> counter = kSeen;
  EXPECT_FALSE(LinuxSystem::wake(counter));
  std::atomic<bool> awake = false;
  WaitingThread sleeper([&] {
    while (!awake) {
      LinuxSystem::wait(counter, kSeen, 100'000'000);
    }
  });
  sleeper.awaitSleep();
  EXPECT_TRUE(eventually([&] { return LinuxSystem::wake(counter); })) << "a wait may just be over";
  awake = true;
  sleeper.returns();
}

}  // namespace
}  // namespace orvane::test
