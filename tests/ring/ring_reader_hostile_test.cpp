#include <gtest/gtest.h>

#include <fcntl.h>

#include "raw_ring.hpp"
#include "support/throws.hpp"

// Everything that a producer can write which it may not.
namespace orvane::test {
namespace {

constexpr char kTailWrong[] =
    "The producer broke the rules of its ring: its tail is not where it can be";
constexpr char kTooLarge[] =
    "The producer broke the rules of its ring: a frame is larger than what was handed over or may "
    "be";
constexpr char kMissing[] = "The producer broke the rules of its ring: a frame is missing";

class HostileProducer : public testing::Test {
 protected:
  testing::AssertionResult isBroken(const std::string& message) {
    return throwsErrno(32, message, [this] { ring.receive(); });
  }
  void exchange(const Bytes& batch) {
    producer.publish(batch);
    ASSERT_EQ(received(ring), batch);
    ring.answer(responseOf(0));
  }

  RingReader ring{kRing};
  RawProducer producer{ring};
};

TEST_F(HostileProducer, MayNotMoveItsTailBack) {
  exchange(Bytes(100, 'x'));
  producer.moveTail(64);
  EXPECT_TRUE(isBroken(kTailWrong));
  EXPECT_TRUE(throwsErrno(32, kTailWrong, [this] { ring.wait(); }));
  EXPECT_EQ(ring.waiting(), 0U);
  producer.moveTail(0);
  EXPECT_TRUE(isBroken(kTailWrong));
}

TEST_F(HostileProducer, MayNotMoveItsTailBackToWhatIsNotAnsweredYet) {
  producer.write(0, 48, 1, Bytes(48, 'x'));
  producer.moveTail(256);
  ASSERT_EQ(received(ring).size(), 48U);
  producer.moveTail(192);
  ring.answer(responseOf(0));
  EXPECT_TRUE(isBroken(kTailWrong));
}

TEST_F(HostileProducer, MayNotHandMoreOverThanTheRingHas) {
  producer.write(0, 8, 1, Bytes(8, 'x'));
  for (const std::uint64_t tail :
       {kRing + 1, kRing + 64, std::uint64_t{1} << 32, std::uint64_t{1} << 63, ~std::uint64_t{0}}) {
    producer.moveTail(tail);
    EXPECT_TRUE(isBroken(kTailWrong)) << tail;
  }
  producer.moveTail(kRing);
  EXPECT_EQ(received(ring), Bytes(8, 'x'));
}

TEST_F(HostileProducer, MayNotHandMoreOverThanIsFree) {
  producer.write(0, 8, 1, Bytes(8, 'x'));
  producer.moveTail(64);
  ASSERT_EQ(received(ring), Bytes(8, 'x'));
  producer.moveTail(kRing + 64);
  ring.answer(responseOf(0));
  producer.write(64, 8, 2, Bytes(8, 'y'));
  EXPECT_EQ(received(ring), Bytes(8, 'y')) << "all is free again";
  producer.moveTail(kRing + 128);
  EXPECT_TRUE(isBroken(kTailWrong)) << "the frame in hand takes room";
}

TEST_F(HostileProducer, MayNotLeaveItsTailWithinALine) {
  producer.write(0, 8, 1, Bytes(8, 'x'));
  producer.moveTail(1);
  EXPECT_TRUE(isBroken(kTooLarge));
  producer.moveTail(63);
  EXPECT_TRUE(isBroken(kTooLarge));
}

TEST_F(HostileProducer, GetsNoFurtherWithATailBehindAFrame) {
  producer.write(0, 8, 1, Bytes(8, 'x'));
  producer.moveTail(65);
  EXPECT_EQ(received(ring), Bytes(8, 'x'));
  ring.answer(responseOf(0));
  EXPECT_EQ(producer.servers.get64(kHead), 64U);
  producer.write(64, 8, 2, Bytes(8, 'y'));
  EXPECT_TRUE(isBroken(kTooLarge));
}

TEST_F(HostileProducer, MayNotMakeAFrameLargerThanWhatItHandsOver) {
  producer.moveTail(128);
  for (const std::uint64_t size : {std::uint64_t{113}, std::uint64_t{128}, std::uint64_t{1000}}) {
    producer.write(0, size, 1, {});
    EXPECT_TRUE(isBroken(kTooLarge)) << size;
  }
  producer.write(0, 112, 1, {});
  EXPECT_EQ(received(ring).size(), 112U);
}

TEST_F(HostileProducer, MayNotMakeAFrameLargerThanAQuarter) {
  producer.moveTail(kRing);
  for (const std::uint64_t size :
       {std::uint64_t{262129}, std::uint64_t{262144}, kRing, std::uint64_t{1} << 32,
        std::uint64_t{1} << 63, ~std::uint64_t{0}, ~std::uint64_t{0} - 15,
        ~std::uint64_t{0} - 78}) {
    producer.write(0, size, 1, {});
    EXPECT_TRUE(isBroken(kTooLarge)) << size;
  }
  producer.write(0, 262128, 1, {});
  EXPECT_EQ(received(ring).size(), 262128U);
}

TEST_F(HostileProducer, MustNumberItsFrames) {
  for (const std::uint64_t number :
       {std::uint64_t{0}, std::uint64_t{2}, (std::uint64_t{1} << 32) + 1, ~std::uint64_t{0}}) {
    producer.write(0, 8, number, Bytes(8, 'x'));
    producer.moveTail(64);
    EXPECT_TRUE(isBroken(kMissing)) << number;
  }
  producer.write(0, 8, 1, Bytes(8, 'x'));
  EXPECT_EQ(received(ring), Bytes(8, 'x'));
  ring.answer(responseOf(0));
  producer.write(64, 8, 1, Bytes(8, 'y'));
  producer.moveTail(128);
  EXPECT_TRUE(isBroken(kMissing)) << "the same number again";
}

TEST_F(HostileProducer, CannotLendTheServerADifferentSize) {
  producer.file.put64(16, 1 << 30);
  producer.file.put64(12, 1);
  exchange(Bytes(200, 'x'));
  EXPECT_EQ(producer.servers.get64(kHead), 256U);
}

TEST_F(HostileProducer, CannotHurtWithHolesInItsFile) {
  producer.publish(Bytes(48, 'x'));
  ASSERT_EQ(fallocate(ring.producersFile(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 4096,
                      static_cast<off_t>(kRing)),
            0);
  EXPECT_TRUE(isBroken(kMissing)) << "a hole is zeros";
  ASSERT_EQ(fallocate(ring.producersFile(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, 4096),
            0);
  EXPECT_TRUE(isBroken(kTailWrong));
}

TEST_F(HostileProducer, CannotWriteWhatTheServerCounts) {
  exchange(Bytes(8, 'x'));
  std::memset(producer.file.at(0), 0xff, 64);     // what the ring is
  std::memset(producer.file.at(128), 0xff, 128);  // all of its counters but the tail
  producer.file.put64(kAnswersTaken, 1);
  exchange(Bytes(8, 'y'));
  EXPECT_EQ(producer.servers.get64(kHead), 128U);
  EXPECT_EQ(producer.servers.get64(kAnswersWritten), 2U);
}

}  // namespace
}  // namespace orvane::test
