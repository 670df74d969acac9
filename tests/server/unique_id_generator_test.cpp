#include "orvane/unique_id_generator.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <barrier>
#include <cstdlib>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "orvane/auto_lock.hpp"
#include "support/grouping_locale.hpp"

namespace orvane {

struct UniqueIdCounter {
  static void set(UniqueIdGenerator& generator, std::uint32_t value) { generator.counter = value; }
};

namespace {

constexpr int kThreads = 8;
constexpr int kIdsEach = 500;

template <typename Work>
void inThreads(Work work) {
  std::barrier start(kThreads);
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&work, &start, thread] {
      start.arrive_and_wait();
      work(thread);
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

TEST(UniqueIdGeneratorTest, FirstIdsOfAProcessShareOneCounterAcrossPrefixes) {
  // In a separate process, where nothing has drawn an id yet.
  EXPECT_EXIT(
      {
        UniqueIdGenerator& ids = UniqueIdGenerator::getInstance();
        const bool right = ids.generateId("a") == "a_0" && ids.generateId("b") == "b_1";
        _exit(right ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

TEST(UniqueIdGeneratorTest, NewGeneratorStartsAtZero) {
  UniqueIdGenerator ids;
  EXPECT_EQ(ids.generateId("seg"), "seg_0");
  EXPECT_EQ(ids.generateId("seg"), "seg_1");
  EXPECT_EQ(ids.generateId("other"), "other_2");
}

TEST(UniqueIdGeneratorTest, EmptyPrefixLeavesTheUnderscore) {
  UniqueIdGenerator ids;
  EXPECT_EQ(ids.generateId(""), "_0");
  EXPECT_EQ(ids.generateId(""), "_1");
}

TEST(UniqueIdGeneratorTest, PrefixIsKeptAsItIs) {
  UniqueIdGenerator ids;
  EXPECT_EQ(ids.generateId("a_b %n"), "a_b %n_0");
}

TEST(UniqueIdGeneratorTest, CounterWrapsToZero) {
  UniqueIdGenerator ids;
  UniqueIdCounter::set(ids, 4294967295U);
  EXPECT_EQ(ids.generateId("x"), "x_4294967295");
  EXPECT_EQ(ids.generateId("x"), "x_0");
}

TEST(UniqueIdGeneratorTest, NumbersArePlainDecimalUnderAGroupingLocale) {
  const test::GlobalGroupingLocale grouping;
  UniqueIdGenerator ids;
  UniqueIdCounter::set(ids, 1234567);
  EXPECT_EQ(ids.generateId("x"), "x_1234567");
}

TEST(UniqueIdGeneratorTest, ThreadsDrawTheWholeRangeWithoutRepeats) {
  UniqueIdGenerator ids;
  std::vector<std::vector<std::string>> drawn(kThreads);
  inThreads([&](int thread) {
    for (int i = 0; i < kIdsEach; ++i) {
      drawn[static_cast<std::size_t>(thread)].push_back(ids.generateId("t"));
    }
  });
  std::set<std::string> expected;
  for (int i = 0; i < kThreads * kIdsEach; ++i) {
    expected.insert("t_" + std::to_string(i));
  }
  std::multiset<std::string> all;
  for (const std::vector<std::string>& some : drawn) {
    all.insert(some.begin(), some.end());
  }
  EXPECT_TRUE(std::equal(all.begin(), all.end(), expected.begin(), expected.end()));
}

TEST(UniqueIdGeneratorTest, RacingFirstCallsReachTheSameInstance) {
  std::vector<UniqueIdGenerator*> seen(kThreads);
  inThreads([&](int thread) {
    seen[static_cast<std::size_t>(thread)] = &UniqueIdGenerator::getInstance();
  });
  EXPECT_EQ(std::set(seen.begin(), seen.end()).size(), 1U);
  EXPECT_NE(seen[0], nullptr);
}

TEST(UniqueIdGeneratorTest, CannotBeCopied) {
  EXPECT_FALSE(std::is_copy_constructible_v<UniqueIdGenerator>);
  EXPECT_FALSE(std::is_copy_assignable_v<UniqueIdGenerator>);
}

TEST(AutoLockTest, HoldsTheMutexWhileInScope) {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  {
    const AutoLock lock(mutex);
    EXPECT_EQ(pthread_mutex_trylock(&mutex), EBUSY);
  }
  EXPECT_EQ(pthread_mutex_trylock(&mutex), 0);
  pthread_mutex_unlock(&mutex);
}

TEST(AutoLockTest, ReleasesTheMutexWhenAnExceptionPasses) {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  try {
    const AutoLock lock(mutex);
    throw 1;
  } catch (int) {
  }
  EXPECT_EQ(pthread_mutex_trylock(&mutex), 0);
  pthread_mutex_unlock(&mutex);
}

}  // namespace
}  // namespace orvane
