#include <gtest/gtest.h>

#include "raw_ring.hpp"
#include "support/throws.hpp"

namespace orvane::test {
namespace {

class RingAnswers : public testing::Test {
 protected:
  void serve(std::int32_t status, const char* text = "") {
    producer.publish(bytesOf("12345678"));
    ASSERT_EQ(received(ring), bytesOf("12345678"));
    ring.answer(responseOf(status, text));
  }
  void fill() {
    for (int i = 0; i < 16; ++i) {
      serve(0, "early");
    }
  }
  std::uint64_t written() const { return producer.servers.get64(kAnswersWritten); }
  std::uint64_t head() const { return producer.servers.get64(kHead); }
  void take(std::uint64_t count) { producer.file.put64(kAnswersTaken, count); }

  RingReader ring{kRing};
  RawProducer producer{ring};
};

TEST_F(RingAnswers, AreWrittenAsTheirBytes) {
  serve(0x01020304, "disk full");
  serve(1000, "second");
  EXPECT_EQ(written(), 2U);
  Bytes expected = hex("04030201 6469736b2066756c6c");
  expected.resize(132);
  EXPECT_EQ(producer.servers.bytes(4096, 132), expected);
  EXPECT_EQ(producer.status(1), 1000);
  EXPECT_EQ(producer.text(1), "second");
}

TEST_F(RingAnswers, UseSixteenPlacesInTurn) {
  fill();
  EXPECT_EQ(producer.status(15), 0);
  EXPECT_EQ(producer.text(15), "early");
  take(2);
  serve(1003, "17th");
  serve(0, "18th");
  EXPECT_EQ(written(), 18U);
  EXPECT_EQ(producer.status(16), 1003);
  EXPECT_EQ(producer.text(16), "17th");
  EXPECT_EQ(producer.text(17), "18th");
  EXPECT_EQ(producer.text(2), "early");
}

TEST_F(RingAnswers, OfSuccessAreLostWhenSixteenAreNotTaken) {
  fill();
  serve(0, "lost");
  EXPECT_EQ(written(), 16U);
  EXPECT_EQ(producer.text(0), "early");
  EXPECT_EQ(head(), 17U * 64) << "its frame is released all the same";
  take(1);
  serve(0, "kept");
  EXPECT_EQ(written(), 17U);
  EXPECT_EQ(producer.text(0), "kept");
}

TEST_F(RingAnswers, WithAnErrorAreKeptUntilThereIsRoom) {
  fill();
  serve(1003, "disk full");
  EXPECT_EQ(written(), 16U);
  EXPECT_EQ(head(), 16U * 64) << "its frame is not released";
  EXPECT_EQ(ring.waiting(), 64U);
  producer.publish(bytesOf("87654321"));
  EXPECT_EQ(received(ring), Bytes()) << "no frame before the error was written";
  ring.wait();
  EXPECT_EQ(received(ring), Bytes());
  EXPECT_EQ(ring.waiting(), 128U);
  take(1);
  EXPECT_EQ(received(ring), bytesOf("87654321"));
  EXPECT_EQ(written(), 17U);
  EXPECT_EQ(producer.status(16), 1003);
  EXPECT_EQ(producer.text(16), "disk full");
  EXPECT_EQ(head(), 17U * 64);
  take(17);
  ring.answer(responseOf(0, "later"));
  EXPECT_EQ(written(), 18U);
  EXPECT_EQ(producer.text(17), "later");
  EXPECT_EQ(received(ring), Bytes());
  EXPECT_EQ(written(), 18U) << "the error is written once";
}

TEST_F(RingAnswers, AreWrittenBeforeTheirFrameIsReleased) {
  serve(1003, "first");
  EXPECT_EQ(written(), 1U);
  EXPECT_EQ(head(), 64U);
}

TEST_F(RingAnswers, ReleaseEachFrameOnce) {
  serve(0);
  ring.answer(responseOf(0));
  EXPECT_EQ(head(), 64U);
}

TEST_F(RingAnswers, ReleaseNothingBeforeTheFirstFrame) {
  ring.answer(responseOf(0));
  EXPECT_EQ(written(), 1U);
  EXPECT_EQ(head(), 0U);
}

TEST_F(RingAnswers, AreLostByAProducerThatForgesWhatItHasTaken) {
  fill();
  for (const std::uint64_t taken : {std::uint64_t{17}, std::uint64_t{0x1'0000'0001},
                                    std::uint64_t{1} << 63, ~std::uint64_t{0}}) {
    take(taken);
    serve(0, "lost");
    EXPECT_EQ(written(), 16U) << taken;
  }
  serve(1003, "kept");
  EXPECT_EQ(received(ring), Bytes());
  EXPECT_EQ(written(), 16U);
  take(16);
  EXPECT_EQ(received(ring), Bytes());
  EXPECT_EQ(written(), 17U);
  EXPECT_EQ(producer.text(16), "kept");
}

}  // namespace
}  // namespace orvane::test
