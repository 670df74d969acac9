#include "worker/ring_source.hpp"

#include <gtest/gtest.h>

#include <stdexcept>

#include "ring/raw_ring.hpp"

namespace orvane::test {
namespace {

using orvaned::SourceBroken;

class RingSource : public testing::Test {
 protected:
  std::string brokenBy(const std::function<void()>& call) {
    try {
      call();
      return "nothing";
    } catch (const SourceBroken& e) {
      return e.what();
    }
  }

  orvaned::Heartbeat heartbeat;
  tool::RingTotals totals;
  orvaned::RingSource source{kRing, heartbeat, totals};
  RawProducer producer{source.reader()};
};

TEST_F(RingSource, CountsItsMessagesForTheSupervisor) {
  EXPECT_EQ(source.receive(), std::nullopt);
  EXPECT_EQ(heartbeat.messages, 0U);
  producer.publish(bytesOf("first"));
  producer.publish(bytesOf("second"));
  auto message = source.receive();
  ASSERT_TRUE(message);
  EXPECT_EQ(Bytes(message->begin(), message->end()), bytesOf("first"));
  EXPECT_EQ(heartbeat.messages, 1U);
  source.answer(responseOf(0));
  message = source.receive();
  ASSERT_TRUE(message);
  EXPECT_EQ(Bytes(message->begin(), message->end()), bytesOf("second"));
  EXPECT_EQ(heartbeat.messages, 2U);
  EXPECT_EQ(heartbeat.queueCalls, 0U);
}

TEST_F(RingSource, PassesAnswersOn) {
  producer.publish(bytesOf("batch"));
  ASSERT_TRUE(source.receive());
  source.answer(responseOf(1003, "disk full"));
  EXPECT_EQ(producer.servers.get64(kAnswersWritten), 1U);
  EXPECT_EQ(producer.status(0), 1003);
  EXPECT_EQ(producer.text(0), "disk full");
}

TEST_F(RingSource, IsBrokenByAProducerThatBreaksARule) {
  constexpr char reason[] =
      "The producer broke the rules of its ring: its tail is not where it can be";
  producer.moveTail(kRing + 64);
  EXPECT_EQ(brokenBy([this] { source.receive(); }), reason);
  EXPECT_EQ(brokenBy([this] { source.wait(); }), reason);
  EXPECT_EQ(heartbeat.messages, 0U);
}

TEST_F(RingSource, WaitsForAMomentOnly) {
  EXPECT_TRUE(source.wait()) << "the ring slept by itself";
  producer.publish(bytesOf("batch"));
  EXPECT_TRUE(source.wait());
  EXPECT_TRUE(source.receive());
}

TEST_F(RingSource, HasNoMoreMessagesThanTheRingHasLines) {
  EXPECT_EQ(source.waiting(), 0U);
  producer.publish(bytesOf("batch"));
  EXPECT_EQ(source.waiting(), 1U);
  producer.moveTail(kRing);
  EXPECT_EQ(source.waiting(), 16384U);
  producer.moveTail(~std::uint64_t{0});
  EXPECT_EQ(source.waiting(), 16384U) << "a forged tail counts for nothing";
}

TEST_F(RingSource, PublishesWhatWaitsAndWhatTheProducerSaysOfItsWaits) {
  EXPECT_EQ(&source.totals(), &totals.totals);
  producer.publish(bytesOf("batch"));
  producer.file.put64(kNap, 7);  // three naps, and the fourth
  producer.file.put64(kBlocked, 1'500'000'000);
  ASSERT_TRUE(source.receive());
  EXPECT_EQ(totals.waiting, 64U);
  EXPECT_EQ(totals.producerBlocked, 1'500'000'000U);
  EXPECT_EQ(totals.producerSleeps, 3U);
  source.answer(responseOf(0));
  ASSERT_FALSE(source.receive());
  EXPECT_EQ(totals.waiting, 0U);
}

TEST_F(RingSource, ThatCannotBeMadeIsARuntimeError) {
  EXPECT_THROW(orvaned::RingSource(kRing + 1, heartbeat, totals), std::runtime_error);
}

}  // namespace
}  // namespace orvane::test
