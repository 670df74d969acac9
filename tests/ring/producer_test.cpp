#include "ring/producer.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <memory>

#include "orvane/ring_writer.hpp"
#include "raw_ring.hpp"
#include "ring/fork_count.hpp"
#include "support/throws.hpp"
#include "support/waiting_thread.hpp"

namespace orvane::test {
namespace {

using ring::File;
using ring::Producer;

constexpr char kOtherForm[] =
    "The server's ring has another form: client and server versions differ; install the same "
    "release of both";
constexpr char kServerBroke[] = "The server broke the rules of its ring: take another lease";
constexpr char kEnded[] = "The server ended the lease: it died or was stopped";

// A server that writes what it likes, and its producer.
class HostileServer : public testing::Test {
 protected:
  HostileServer() {
    const Bytes identity = hex("6f727672696e6700 01000000 40000000 0000100000000000");
    std::memcpy(producers.at(0), identity.data(), identity.size());
    std::memcpy(servers.at(0), identity.data(), identity.size());
    seal(mine, ring::Sealed::size);
    seal(theirs, ring::Sealed::size);
  }

  std::unique_ptr<Producer> made() {
    return std::make_unique<Producer>(mine, theirs, kRing, connection());
  }

  Producer::Connection connection() {
    return {[this] { return ended(); }, [this] { hasLeft = true; }};
  }

  // One frame of a whole quarter.
  static void sendQuarter(Producer& producer) {
    ASSERT_NE(producer.place(kLargestRecord, 1), nullptr);
    producer.commit(kLargestRecord);
    producer.publish();
  }

  const File mine = ring::makeFile("producers", 4096 + kRing);
  const File theirs = ring::makeFile("servers", 8192);
  const MappedFile producers{mine.get(), true};
  const MappedFile servers{theirs.get(), true};
  std::function<bool()> ended = [] { return false; };
  bool hasLeft = false;  // the producer, its lease
};

TEST_F(HostileServer, MustSayInBothFilesWhatRingItMade) {
  EXPECT_NO_THROW(made());
  for (const MappedFile* const file : {&producers, &servers}) {
    for (const std::size_t offset : {0U, 7U, 8U, 11U, 12U, 15U, 16U, 18U, 23U}) {
      *file->at(offset) ^= 1U;
      EXPECT_TRUE(throwsErrno(901, kOtherForm, [this] { made(); })) << offset;
      *file->at(offset) ^= 1U;
    }
  }
}

TEST_F(HostileServer, MustSendFilesOfTheRightSize) {
  EXPECT_TRUE(throwsErrno(901,
                          "The server's memory is not a ring of 2101248 bytes: client and server "
                          "versions differ; install the same release of both",
                          [this] { Producer(mine, theirs, 2 * kRing, connection()); }));
  EXPECT_TRUE(throwsErrno(901,
                          "The server's memory is not a ring of 4296019968 bytes: client and "
                          "server versions differ; install the same release of both",
                          [this] { Producer(mine, theirs, 4294967296 + kRing, connection()); }));
  const File large = ring::makeFile("large", 8193);
  seal(large, ring::Sealed::size);
  EXPECT_TRUE(throwsErrno(901,
                          "The server's memory is not a ring of 8192 bytes: client and server "
                          "versions differ; install the same release of both",
                          [&] { Producer(mine, large, kRing, connection()); }));
}

TEST_F(HostileServer, MayNotReleaseWhatWasNotSent) {
  const std::unique_ptr<Producer> producer = made();
  sendQuarter(*producer);
  EXPECT_FALSE(producer->awaitReleased(0));
  EXPECT_FALSE(hasLeft);
  servers.put64(kHead, 262145);
  EXPECT_TRUE(throwsErrno(901, kServerBroke, [&] { producer->awaitReleased(1); }));
  EXPECT_TRUE(hasLeft);
}

TEST_F(HostileServer, MayNotTakeRoomBack) {
  const std::unique_ptr<Producer> producer = made();
  sendQuarter(*producer);
  servers.put64(kHead, 64);
  EXPECT_FALSE(producer->awaitReleased(0));
  servers.put64(kHead, 0);
  EXPECT_TRUE(throwsErrno(901, kServerBroke, [&] { producer->awaitReleased(0); }));
  servers.put64(kHead, 64);
  for (int i = 0; i < 3; ++i) {
    sendQuarter(*producer);
  }
  servers.put64(kHead, 0);
  EXPECT_TRUE(throwsErrno(901, kServerBroke, [&] { producer->place(0, 0); }));
}

TEST_F(HostileServer, MayNotWriteMoreAnswersThanThereArePlaces) {
  const std::unique_ptr<Producer> producer = made();
  servers.put64(kAnswersWritten, std::uint64_t{1} << 32);
  EXPECT_TRUE(throwsErrno(901, kServerBroke, [&] { producer->discardAnswers(); }));
  servers.put64(kAnswersWritten, 16);
  EXPECT_NO_THROW(sendQuarter(*producer));
  EXPECT_EQ(producers.get64(kAnswersTaken), 16U);
  servers.put64(kAnswersWritten, 33);
  EXPECT_TRUE(throwsErrno(901, kServerBroke, [&] { sendQuarter(*producer); }));
  servers.put64(kAnswersWritten, 15);
  EXPECT_TRUE(throwsErrno(901, kServerBroke, [&] { producer->discardAnswers(); }));
}

TEST_F(HostileServer, GetsNoFrameTwiceWhenItsAnswersAreTooMany) {
  const std::unique_ptr<Producer> producer = made();
  servers.put64(kAnswersWritten, 17);
  ASSERT_NE(producer->place(0, 1), nullptr);
  producer->commit(0);
  EXPECT_TRUE(throwsErrno(901, kServerBroke, [&] { producer->publish(); }));
  EXPECT_EQ(producers.get64(kTail), 128U);
  EXPECT_EQ(producer->placeInFrame(0), nullptr);
  EXPECT_NO_THROW(producer->publish());
  EXPECT_EQ(producers.get64(kTail), 128U);
}

TEST_F(HostileServer, GetsOneCloseRecordWhenItsAnswersAreTooMany) {
  RingWriter writer("s", std::shared_ptr<Producer>(made()), 1, 0, false);
  writer.open();
  EXPECT_EQ(producers.get64(kTail), 128U);
  servers.put64(kAnswersWritten, 17);
  EXPECT_TRUE(throwsErrno(901, kServerBroke, [&] { writer.close(); }));
  EXPECT_EQ(producers.get64(kTail), 256U);
  EXPECT_TRUE(throwsErrno(901, kServerBroke, [&] { writer.close(); })) << "it is not answered";
  EXPECT_EQ(producers.get64(kTail), 256U);
}

TEST_F(HostileServer, GivesErrorsThatAreDiscarded) {
  const std::unique_ptr<Producer> producer = made();
  const Bytes answer = hex("eb030000 64 69 73 6b 00");
  std::memcpy(servers.at(kFirstAnswer), answer.data(), answer.size());
  servers.put64(kAnswersWritten, 1);
  producer->discardAnswers();
  EXPECT_EQ(producers.get64(kAnswersTaken), 1U);
  EXPECT_EQ(producer->takeError(), nullptr);
}

TEST_F(HostileServer, GetsAFrameWhenItHasItsUsualSize) {
  const std::unique_ptr<Producer> producer = made();
  ASSERT_NE(producer->place(0, 1), nullptr);
  producer->commit(0);
  EXPECT_NE(producer->placeInFrame(262024), nullptr);
  EXPECT_EQ(producer->placeInFrame(262025), nullptr);
  EXPECT_NE(producer->place(0, 1), nullptr);
  EXPECT_NE(producer->place(262024, 1), nullptr);
  EXPECT_EQ(producers.get64(kTail), 0U);
  EXPECT_NE(producer->place(262025, 1), nullptr);
  EXPECT_EQ(producers.get64(kTail), 128U);
}

TEST_F(HostileServer, CannotMoveTheTail) {
  const std::unique_ptr<Producer> producer = made();
  sendQuarter(*producer);
  EXPECT_EQ(producers.get64(kTail), 262144U);
  producers.put64(kTail, 5);
  sendQuarter(*producer);
  EXPECT_EQ(producers.get64(kTail), 524288U);
}

TEST_F(HostileServer, EndsEachWaitWithTheLease) {
  const std::unique_ptr<Producer> producer = made();
  for (int i = 0; i < 4; ++i) {
    sendQuarter(*producer);
  }
  ended = [] { return true; };
  EXPECT_TRUE(throwsErrno(901, kEnded, [&] { producer->place(0, 60); }));
  EXPECT_EQ(producers.get32(kNap), 0U) << "it does not sleep before";
  EXPECT_TRUE(throwsErrno(901, kEnded, [&] { producer->awaitReleased(60); }));
  EXPECT_EQ(producer->place(0, 0), nullptr) << "it does not wait";
}

TEST_F(HostileServer, IsHeardWhenItAnsweredJustBeforeItEnded) {
  const std::unique_ptr<Producer> producer = made();
  sendQuarter(*producer);
  ended = [this] {
    const Bytes answer = hex("eb030000 64 69 73 6b 00");
    std::memcpy(servers.at(kFirstAnswer), answer.data(), answer.size());
    servers.put64(kAnswersWritten, 1);
    servers.put64(kHead, 262144);
    return true;
  };
  EXPECT_TRUE(producer->awaitReleased(60));
  const pvk_shm_response_t* const error = producer->takeError();
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->status, 1003);
  EXPECT_STREQ(error->text, "disk");
  EXPECT_EQ(producer->takeError(), nullptr);
}

TEST_F(HostileServer, IsWaitedForUntilAQuarterIsFree) {
  const std::unique_ptr<Producer> producer = made();
  for (int i = 0; i < 4; ++i) {
    sendQuarter(*producer);
  }
  servers.put64(kHead, 64);
  EXPECT_EQ(producer->place(0, 0), nullptr) << "needs 128 bytes";
  servers.put64(kHead, 128);
  EXPECT_NE(producer->place(0, 0), nullptr);
  EXPECT_EQ(producer->place(100, 1), nullptr);
  EXPECT_EQ(producers.get64(136), 262144U) << "the head at which it is to be woken";
  EXPECT_GE(producers.get64(144), 1'000'000'000U) << "nanoseconds blocked";
  EXPECT_GE(producers.get32(kNap), 2U);
  EXPECT_EQ(producers.get32(kNap) % 2, 0U);
}

TEST_F(HostileServer, SeesTheTimeThatItBlockedAddedUp) {
  const std::unique_ptr<Producer> producer = made();
  sendQuarter(*producer);
  EXPECT_EQ(producers.get64(144), 0U);
  producers.put64(144, 4'000'000'000);  // 32 bits will be too few
  const Stopwatch watch;
  EXPECT_FALSE(producer->awaitReleased(1));
  EXPECT_FALSE(producer->awaitReleased(1));
  EXPECT_GE(producers.get64(144), 6'000'000'000U);
  EXPECT_LE(static_cast<double>(producers.get64(144)), 4e9 + watch.seconds() * 1e9);
}

TEST_F(HostileServer, CannotTellItsProducersProcessByAFewBitsOfTheForks) {
  const std::unique_ptr<Producer> before = made();
  ring::forks += 65536;
  EXPECT_TRUE(before->isInForkedChild());
  EXPECT_FALSE(made()->isInForkedChild());
  ring::forks -= 65536;
  EXPECT_FALSE(before->isInForkedChild());
}

}  // namespace
}  // namespace orvane::test
