#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <memory>
#include <thread>

#include "support/stream.hpp"
#include "support/throws.hpp"
#include "support/waiting_thread.hpp"

namespace orvane::test {
namespace {

std::atomic<int> signalsSeen = 0;

TEST(WaitingWriter, IsNotDisturbedBySignals) {
  struct sigaction action = {};
  struct sigaction before = {};
  action.sa_handler = [](int) { ++signalsSeen; };  // without SA_RESTART
  ASSERT_EQ(sigaction(SIGUSR1, &action, &before), 0);
  Stream stream;
  stream.open();
  stream.write("hello");
  stream.pair.fill();
  const Stopwatch watch;
  testing::AssertionResult result = testing::AssertionFailure() << "the flush was not tried";
  WaitingThread writer([&] {
    result = throwsErrno(15, "Timed out after waiting 3s to send data to orvaned on stream stream",
                         [&] { stream.writer.flush_shm_buffer(3); });
  });
  for (int sent = 1; sent <= 20; ++sent) {
    writer.awaitSleep();
    writer.signal(SIGUSR1);
    while (signalsSeen < sent) {
      std::this_thread::yield();
    }
  }
  EXPECT_TRUE(writer.returns());
  EXPECT_TRUE(result);
  EXPECT_GE(watch.seconds(), earliest(3));
  EXPECT_LT(watch.seconds(), 5);
  stream.pair.discardAll();
  EXPECT_EQ(stream.flushed().at(0).data, bytesOf("hello"));
  sigaction(SIGUSR1, &before, nullptr);
}

TEST(WaitingWriter, CancelledInItsDestructorEndsItsCloseByTheDeadlineAndIsCancelledThen) {
  QueuePair pair;
  auto writer = std::make_unique<ShmWriter>("stream", pair.name(), 2, 0, false);
  writer->open();
  pair.fill();
  const Stopwatch watch;
  std::atomic<double> destroyedAfter = 0;
  WaitingThread thread([&] {
    writer.reset();
    destroyedAfter = watch.seconds();
  });
  thread.awaitSleep();
  thread.cancel();
  EXPECT_FALSE(thread.returns());
  EXPECT_GE(destroyedAfter, earliest(2));
  EXPECT_LT(destroyedAfter, 4);
  EXPECT_EQ(mappingsOf(pair.name()), 1U);
  EXPECT_EQ(pair.waiting(), 8U);
}

}  // namespace
}  // namespace orvane::test
