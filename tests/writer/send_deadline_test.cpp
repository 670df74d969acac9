#include <gtest/gtest.h>

#include <memory>

#include "replaced_clock.hpp"
#include "replaced_log.hpp"
#include "replaced_waits.hpp"
#include "support/stream.hpp"
#include "support/throws.hpp"

namespace orvane::test {
namespace {

constexpr std::time_t kNow = 1'000'000'000;
constexpr std::uint32_t kWholeBatch = 968;  // data of the only record of a batch of 1024 bytes

using Deadlines = std::vector<Deadline>;

struct Case {
  unsigned int timeout = 0;
  Deadline deadline;
};

// Both bounds of `timeout`, and every width and sign that could be cut off.
constexpr Case kCases[] = {
    {0, {1000000000, 0}},          {1, {1000000001, 0}},         {255, {1000000255, 0}},
    {256, {1000000256, 0}},        {65535, {1000065535, 0}},     {65536, {1000065536, 0}},
    {86400, {1000086400, 0}},      {86401, {1000086401, 0}},     {2147483647, {3147483647, 0}},
    {2147483648, {3147483648, 0}}, {4294967295, {5294967295, 0}}};

std::string timedOut(unsigned int timeout) {
  return "Timed out after waiting " + std::to_string(timeout) +
         "s to send data to orvaned on stream stream";
}

class SendDeadline : public testing::Test {
 protected:
  SendDeadline() { setClock(kNow); }
  ~SendDeadline() override { setClock(std::nullopt); }

  static void fillBatch(ShmWriter& writer) {
    const pvk_shm_message_t header = recordHeader(9, kWholeBatch);
    writer.write_data(&header, Bytes(kWholeBatch, 'x').data(), 0, false);
  }

  ReplacedWaits waits;
};

TEST_F(SendDeadline, IsTheClocksWholeSecondAndTheTimeoutInFullWidth) {
  Stream stream;
  stream.pair.fill();
  for (const Case& each : kCases) {
    EXPECT_TRUE(throwsErrno(15, timedOut(each.timeout),
                            [&] { stream.writer.flush_shm_buffer(each.timeout); }));
    EXPECT_EQ(waits.take(), Deadlines{each.deadline});
  }
}

TEST_F(SendDeadline, OfAStopIsTheStopTimeoutInFullWidth) {
  for (const Case& each : kCases) {
    Stream stream({.stopTimeout = each.timeout});
    stream.pair.fill();
    EXPECT_TRUE(throwsErrno(15, timedOut(each.timeout), [&] { stream.writer.stop(true); }));
    EXPECT_EQ(waits.take(), Deadlines{each.deadline});
  }
}

TEST_F(SendDeadline, OfTheLongestTimeoutOfAWriterIsADayAhead) {
  Stream stream({.timeout = 86400});
  stream.pair.fill();
  EXPECT_TRUE(throwsErrno(15, timedOut(86400), [&] { stream.writer.open(); }));
  EXPECT_EQ(waits.take(), (Deadlines{{1000086400, 0}}));
}

// By the real clock, which stands anywhere within its second.
TEST_F(SendDeadline, IsNeverLateAndLessThanASecondEarly) {
  Stream stream;
  stream.pair.fill();
  setClock(std::nullopt);
  timespec before{};
  timespec after{};
  clock_gettime(CLOCK_REALTIME, &before);
  EXPECT_TRUE(throwsErrno(15, timedOut(7), [&] { stream.writer.flush_shm_buffer(7); }));
  clock_gettime(CLOCK_REALTIME, &after);
  const Deadlines deadlines = waits.take();
  ASSERT_EQ(deadlines.size(), 1U);
  EXPECT_EQ(deadlines[0].nanoseconds, 0);
  EXPECT_GE(deadlines[0].seconds, before.tv_sec + 7);
  EXPECT_LE(deadlines[0].seconds, after.tv_sec + 7);
}

TEST_F(SendDeadline, IsNeededOnlyWhileTheQueueIsFull) {
  Stream stream;
  stream.writer.open();
  stream.write("a");
  stream.writer.endSegment();
  stream.writer.stop(true);
  stream.writer.close();
  EXPECT_EQ(waits.take(), Deadlines()) << "neither for room nor for an answer";
}

TEST_F(SendDeadline, StaysWhereItIsWhenAWakeUpBringsNoRoom) {
  Stream stream;
  stream.pair.fill();
  waits.wakeUpBy([] { setClock(kNow + 3); });
  EXPECT_TRUE(throwsErrno(15, timedOut(7), [&] { stream.writer.flush_shm_buffer(7); }));
  EXPECT_EQ(waits.take(), (Deadlines{{1000000007, 0}, {1000000007, 0}}));
}

TEST_F(SendDeadline, IsTakenFromTheClockAfterTheFlushIsTraced) {
  Stream stream;
  stream.pair.fill();
  const ReplacedLog log([](const std::string& format) {
    setClock(format == "%s: Sending shm batch of %u" ? kNow + 60 : kNow);
  });
  const pvk_shm_message_t header = recordHeader(9, 0);
  EXPECT_ANY_THROW(stream.writer.write_data(&header, nullptr, 7, true));
  EXPECT_EQ(waits.take(), (Deadlines{{1000000067, 0}}));
}

// One message fits the queue, so that the second send of the call has to wait as well.
class TwoSends : public SendDeadline {
 protected:
  TwoSends() { stream.pair.fill(); }

  // Fills the batch; the server takes the first message five seconds after the call began.
  void serverTakesOneLate() {
    fillBatch(stream.writer);
    waits.wakeUpBy([this] {
      stream.pair.receive();
      setClock(kNow + 5);
    });
  }

  Stream stream{{.geometry = {.depth = 1}, .timeout = 20, .stopTimeout = 30}};
};

TEST_F(TwoSends, OfARecordHaveTheCallersTimeoutEach) {
  serverTakesOneLate();
  const pvk_shm_message_t header = recordHeader(8, 0);
  EXPECT_TRUE(
      throwsErrno(15, timedOut(11), [&] { stream.writer.write_data(&header, nullptr, 11, true); }));
  EXPECT_EQ(waits.take(), (Deadlines{{1000000011, 0}, {1000000016, 0}}));
  EXPECT_EQ(stream.sent().at(0).type, 9U);
  EXPECT_EQ(stream.flushed().at(0).type, 8U);
}

TEST_F(TwoSends, OfAnOpenHaveTheWritersTimeoutEach) {
  serverTakesOneLate();
  EXPECT_TRUE(throwsErrno(15, timedOut(20), [&] { stream.writer.open(); }));
  EXPECT_EQ(waits.take(), (Deadlines{{1000000020, 0}, {1000000025, 0}}));
}

TEST_F(TwoSends, OfAStopHaveTheStopTimeoutEach) {
  serverTakesOneLate();
  EXPECT_TRUE(throwsErrno(15, timedOut(30), [&] { stream.writer.stop(true); }));
  EXPECT_EQ(waits.take(), (Deadlines{{1000000030, 0}, {1000000035, 0}}));
}

TEST_F(TwoSends, OfAStopWithoutItsOwnTimeoutHaveTheWritersEach) {
  serverTakesOneLate();
  EXPECT_TRUE(throwsErrno(15, timedOut(20), [&] { stream.writer.stop(false); }));
  EXPECT_EQ(waits.take(), (Deadlines{{1000000020, 0}, {1000000025, 0}}));
}

TEST_F(TwoSends, OfACloseHaveTheWritersTimeoutEach) {
  stream.pair.discardAll();
  stream.open();
  stream.pair.fill();
  serverTakesOneLate();
  EXPECT_TRUE(throwsErrno(15, timedOut(20), [&] { stream.writer.close(); }));
  EXPECT_EQ(waits.take(), (Deadlines{{1000000020, 0}, {1000000025, 0}}));
}

TEST_F(SendDeadline, OfSegmentsAndTheirEndsIsTheWritersTimeout) {
  Stream stream({.timeout = 20, .stopTimeout = 30});
  stream.open();
  fillBatch(stream.writer);
  stream.pair.fill();
  EXPECT_TRUE(throwsErrno(15, timedOut(20), [&] { stream.write("a"); }));
  EXPECT_TRUE(throwsErrno(15, timedOut(20), [&] { stream.writer.endSegment(); }));
  EXPECT_EQ(waits.take(), (Deadlines{{1000000020, 0}, {1000000020, 0}}));
}

TEST_F(SendDeadline, OfTheDestructorsCloseIsTheWritersTimeout) {
  QueuePair pair;
  auto writer = std::make_unique<ShmWriter>("stream", pair.name(), 20, 30, false);
  writer->open();
  pair.fill();
  writer.reset();
  EXPECT_EQ(waits.take(), (Deadlines{{1000000020, 0}}));
}

}  // namespace
}  // namespace orvane::test
