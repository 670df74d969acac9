#include "ring/hand_over.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <vector>

namespace orvane::test {
namespace {

// What the hand-over asks of the system, written down in its order.
struct RecordedSystem {
  template <typename T>
  using Atomic = std::atomic<T>;

  static constexpr std::memory_order kRelaxed = std::memory_order_relaxed;
  static constexpr std::memory_order kAcquire = std::memory_order_acquire;
  static constexpr std::memory_order kRelease = std::memory_order_release;

  static void fence() {
    calls.emplace_back("fence");
    atFence();
  }
  static void pause() { time += 10'000; }
  static std::int64_t now() { return time; }
  static void wait(const Atomic<std::uint64_t>& counter, std::uint64_t seen, std::int64_t limit) {
    waitedOn = &counter;
    calls.push_back("wait " + std::to_string(seen) + " " + std::to_string(limit));
    atWait();
  }
  static bool wake(const Atomic<std::uint64_t>& counter) {
    wokenOn = &counter;
    calls.emplace_back("wake");
    return someoneSleeps;
  }

  inline static std::vector<std::string> calls;
  inline static std::function<void()> atFence;
  inline static std::function<void()> atWait;
  inline static std::int64_t time;
  inline static bool someoneSleeps;
  inline static const void* waitedOn;
  inline static const void* wokenOn;
};

class HandOver : public testing::Test {
 protected:
  using Calls = std::vector<std::string>;

  static constexpr std::int64_t kStart = 5'000'000'005;  // more than 32 bits

  HandOver() {
    RecordedSystem::calls.clear();
    RecordedSystem::atFence = [] {};
    RecordedSystem::atWait = [] {};
    RecordedSystem::time = kStart;
    RecordedSystem::someoneSleeps = true;
    RecordedSystem::waitedOn = nullptr;
    RecordedSystem::wokenOn = nullptr;
  }
  static Calls taken() { return std::exchange(RecordedSystem::calls, {}); }

  ring::ProducerCounters<RecordedSystem::Atomic> producers;
  ring::ServerCounters<RecordedSystem::Atomic> servers;
  ring::ProducerEnd<RecordedSystem> producer{producers, servers, 1024};
  ring::ServerEnd<RecordedSystem> server{servers, producers, 1024};
};

TEST_F(HandOver, PublishesBeforeItsFenceAndWakesNobodyWhoIsAwake) {
  std::uint64_t atFence = 0;
  RecordedSystem::atFence = [&] { atFence = producers.tail; };
  producer.publish(64);
  EXPECT_EQ(atFence, 64U);
  EXPECT_EQ(taken(), Calls{"fence"});
  servers.nap = 2;
  producer.publish(128);
  EXPECT_EQ(taken(), Calls{"fence"});
  EXPECT_EQ(producer.tail(), 128U);
}

TEST_F(HandOver, WakesASleeperOnTheTail) {
  RecordedSystem::atFence = [&] { servers.nap = 1; };  // it is looked at after the fence
  producer.publish(64);
  EXPECT_EQ(taken(), (Calls{"fence", "wake"}));
  EXPECT_EQ(RecordedSystem::wokenOn, &producers.tail);
}

TEST_F(HandOver, WakesASleeperOnceForEachNap) {
  servers.nap = 1;
  producer.publish(64);
  taken();
  producer.publish(128);
  EXPECT_EQ(taken(), Calls{"fence"}) << "this nap was ended";
  servers.nap = 3;
  producer.publish(192);
  EXPECT_EQ(taken(), (Calls{"fence", "wake"}));
}

TEST_F(HandOver, TellsNapsApartThatAreFarApart) {
  servers.nap = 1;
  producer.publish(64);
  taken();
  servers.nap = 65537;
  producer.publish(128);
  EXPECT_EQ(taken(), (Calls{"fence", "wake"}));
  producer.publish(192);
  EXPECT_EQ(taken(), Calls{"fence"});
}

TEST_F(HandOver, WakesAgainASideThatHadNotFallenAsleepYet) {
  servers.nap = 1;
  RecordedSystem::someoneSleeps = false;
  producer.publish(64);
  EXPECT_EQ(taken(), (Calls{"fence", "wake"}));
  producer.publish(128);
  EXPECT_EQ(taken(), (Calls{"fence", "wake"}));
}

TEST_F(HandOver, ReleasesBeforeItsFenceAndWakesTheProducerWhenEnoughIsFree) {
  std::uint64_t atFence = 0;
  producers.nap = 1;
  producers.want = 128;
  RecordedSystem::atFence = [&] { atFence = servers.head; };
  server.release(64);
  EXPECT_EQ(atFence, 64U);
  EXPECT_EQ(taken(), Calls{"fence"});
  server.release(128);
  EXPECT_EQ(taken(), (Calls{"fence", "wake"}));
  EXPECT_EQ(RecordedSystem::wokenOn, &servers.head);
  server.release(192);
  EXPECT_EQ(taken(), Calls{"fence"});
  producers.nap = 3;
  server.release(256);
  EXPECT_EQ(taken(), (Calls{"fence", "wake"})) << "more than enough";
  producers.nap = 4;
  server.release(320);
  EXPECT_EQ(taken(), Calls{"fence"});
  EXPECT_EQ(server.head(), 320U);
}

TEST_F(HandOver, WakesASleeperOnTheHead) {
  RecordedSystem::atFence = [&] { producers.nap = 1; };  // it is looked at after the fence
  server.release(64);
  EXPECT_EQ(taken(), (Calls{"fence", "wake"}));
  RecordedSystem::atFence = [&] { producers.nap = 65537; };
  server.release(128);
  EXPECT_EQ(taken(), (Calls{"fence", "wake"})) << "another nap";
}

TEST_F(HandOver, BeginsWithAnEmptyRing) {
  EXPECT_EQ(producer.tail(), 0U);
  EXPECT_EQ(producer.head(), 0U);
  EXPECT_EQ(producer.room(), 1024U);
  EXPECT_EQ(server.head(), 0U);
  EXPECT_EQ(server.filled(), 0U);
}

TEST_F(HandOver, LetsTheServerLookBeforeItSleeps) {
  producers.tail = 1;
  EXPECT_TRUE(server.await());
  EXPECT_EQ(taken(), Calls());
  EXPECT_EQ(RecordedSystem::time, kStart) << "it does not pause";
  EXPECT_EQ(server.filled(), 1U);
  EXPECT_EQ(servers.nap, 0U);
}

TEST_F(HandOver, LetsTheServerSleepOnTheTailAfterFiftyMicroseconds) {
  std::uint32_t atFence = 0;
  std::uint32_t atWait = 0;
  std::int64_t sleptAt = 0;
  RecordedSystem::atFence = [&] { atFence = servers.nap; };
  RecordedSystem::atWait = [&] {
    atWait = servers.nap;
    sleptAt = RecordedSystem::time;
    producers.tail = 64;
  };
  EXPECT_TRUE(server.await());
  EXPECT_EQ(taken(), (Calls{"fence", "wait 0 100000000"}));
  EXPECT_EQ(RecordedSystem::waitedOn, &producers.tail);
  EXPECT_EQ(sleptAt, kStart + 50'000);
  EXPECT_EQ(atFence, 1U);
  EXPECT_EQ(atWait, 1U);
  EXPECT_EQ(servers.nap, 2U);
  EXPECT_EQ(server.filled(), 64U) << "it looks after its nap";
}

TEST_F(HandOver, SleepsAtMostOnce) {
  EXPECT_TRUE(server.await());
  EXPECT_EQ(taken(), (Calls{"fence", "wait 0 100000000"}));
  EXPECT_TRUE(server.await());
  EXPECT_EQ(taken(), (Calls{"fence", "wait 0 100000000"}));
  EXPECT_EQ(servers.nap, 4U);
  EXPECT_TRUE(producer.await(64));
  EXPECT_EQ(taken(), (Calls{"fence", "wait 0 100000000"}));
  EXPECT_EQ(producers.nap, 2U);
}

TEST_F(HandOver, CountsItsNapsBeyondSixteenBits) {
  std::uint32_t atWait = 0;
  RecordedSystem::atWait = [&] { atWait = servers.nap; };
  servers.nap = 65536;
  EXPECT_TRUE(server.await());
  EXPECT_EQ(atWait, 65537U);
  EXPECT_EQ(servers.nap, 65538U);
}

// How many nanoseconds each of the next waits looks before it sleeps; a wait looks once at least.
std::vector<std::int64_t> looks(int waits, const std::function<void()>& await) {
  std::vector<std::int64_t> times;
  for (; waits > 0; --waits) {
    const std::int64_t begin = RecordedSystem::time;
    RecordedSystem::atWait = [&] { times.push_back(RecordedSystem::time - begin); };
    await();
  }
  return times;
}

std::vector<std::int64_t> oneLookIn(std::initializer_list<int> waits) {
  std::vector<std::int64_t> times;
  for (const int count : waits) {
    times.push_back(50'000);
    times.insert(times.end(), static_cast<std::size_t>(count - 1), 10'000);
  }
  return times;
}

TEST_F(HandOver, LooksLessAndLessOftenInVain) {
  const auto often = oneLookIn({2, 4, 8, 16, 16, 16});
  EXPECT_EQ(looks(62, [&] { server.await(); }), often);
  EXPECT_EQ(looks(62, [&] { producer.await(64); }), often);
}

TEST_F(HandOver, LetsTheServerLookAgainAfterALookThatWasNotInVain) {
  const auto await = [&] { server.await(); };
  EXPECT_EQ(looks(3, await), (std::vector<std::int64_t>{50'000, 10'000, 50'000}));
  producers.tail = 64;
  await();
  server.release(64);
  EXPECT_EQ(looks(6, await), oneLookIn({2, 4}));
}

TEST_F(HandOver, LetsTheProducerLookAgainAfterALookThatWasNotInVain) {
  const auto await = [&] { producer.await(64); };
  producer.publish(64);
  EXPECT_EQ(looks(3, await), (std::vector<std::int64_t>{50'000, 10'000, 50'000}));
  servers.head = 64;
  await();
  EXPECT_EQ(looks(6, [&] { producer.await(128); }), oneLookIn({2, 4}));
}

TEST_F(HandOver, LooksOnceMoreAfterItsFence) {
  RecordedSystem::atFence = [&] { producers.tail = 64; };
  EXPECT_TRUE(server.await());
  EXPECT_EQ(taken(), Calls{"fence"});
  EXPECT_EQ(servers.nap, 2U);
  EXPECT_EQ(server.filled(), 64U);
}

TEST_F(HandOver, LetsTheProducerSleepOnTheHeadUntilEnoughIsFree) {
  producer.publish(1024);
  taken();
  servers.head = 64;
  std::uint32_t nap = 0;
  RecordedSystem::atWait = [&] {
    nap = producers.nap;
    servers.head = 256;
  };
  EXPECT_TRUE(producer.await(256));
  EXPECT_EQ(producers.want, 256U);
  EXPECT_EQ(nap, 1U);
  EXPECT_EQ(taken(), (Calls{"fence", "wait 64 100000000"}));
  EXPECT_EQ(RecordedSystem::waitedOn, &servers.head);
  EXPECT_EQ(producers.nap, 2U);
  EXPECT_EQ(producer.head(), 256U);
  EXPECT_EQ(producer.room(), 256U);
  EXPECT_TRUE(producer.await(200));
  EXPECT_EQ(taken(), Calls());
}

TEST_F(HandOver, RejectsAHeadThatGoesBackOrPassesTheTail) {
  producer.publish(512);
  servers.head = 256;
  EXPECT_TRUE(producer.look());
  EXPECT_EQ(producer.room(), 768U);
  for (const std::uint64_t head :
       {std::uint64_t{255}, std::uint64_t{0}, std::uint64_t{513}, std::uint64_t{1} << 63}) {
    servers.head = head;
    EXPECT_FALSE(producer.look()) << head;
    EXPECT_FALSE(producer.await(512)) << head;
    EXPECT_EQ(producer.head(), 256U);
  }
  servers.head = 512;
  EXPECT_TRUE(producer.look());
  EXPECT_EQ(producer.room(), 1024U);
}

TEST_F(HandOver, RejectsATailThatGoesBackOrBeyondTheRing) {
  producers.tail = 512;
  EXPECT_TRUE(server.look());
  server.release(256);
  for (const std::uint64_t tail :
       {std::uint64_t{511}, std::uint64_t{256}, std::uint64_t{1281}, std::uint64_t{1} << 63}) {
    producers.tail = tail;
    EXPECT_FALSE(server.look()) << tail;
  }
  producers.tail = 1280;
  EXPECT_TRUE(server.look());
  EXPECT_EQ(server.filled(), 1024U);
  producers.tail = 1281;
  server.release(1280);
  EXPECT_TRUE(server.await());
  producers.tail = 1280;
  EXPECT_FALSE(server.await());
}

constexpr std::uint64_t kFar = 0x1'0000'0040;  // more than 32 bits

TEST_F(HandOver, LetsTheProducerCountBeyond4GiB) {
  ring::ProducerEnd<RecordedSystem> end(producers, servers, kFar);
  EXPECT_EQ(end.room(), kFar);
  end.publish(kFar);
  EXPECT_EQ(producers.tail, kFar);
  EXPECT_EQ(end.tail(), kFar);
  EXPECT_EQ(end.room(), 0U);
  taken();
  servers.head = kFar - 4;
  RecordedSystem::atWait = [&] { servers.head = kFar; };
  EXPECT_TRUE(end.await(kFar));
  EXPECT_EQ(taken(), (Calls{"fence", "wait 4294967356 100000000"}));
  EXPECT_EQ(producers.want, kFar);
  EXPECT_EQ(end.head(), kFar);
}

TEST_F(HandOver, LetsTheServerCountBeyond4GiB) {
  ring::ServerEnd<RecordedSystem> end(servers, producers, 2 * kFar);
  producers.tail = 2 * kFar;
  EXPECT_TRUE(end.look());
  EXPECT_EQ(end.filled(), 2 * kFar);
  end.release(kFar);
  EXPECT_EQ(servers.head, kFar);
  EXPECT_EQ(end.head(), kFar);
  EXPECT_EQ(end.filled(), kFar);
}

TEST(HandOverCounter, MayOverflow) {
  EXPECT_TRUE(ring::hasReached(std::uint64_t{1} << 31, 0));
  EXPECT_TRUE(ring::hasReached(5, 5));
  EXPECT_TRUE(ring::hasReached(6, 5));
  EXPECT_FALSE(ring::hasReached(4, 5));
  EXPECT_TRUE(ring::hasReached(3, ~std::uint64_t{0}));
  EXPECT_FALSE(ring::hasReached(~std::uint64_t{0}, 3));
}

}  // namespace
}  // namespace orvane::test
