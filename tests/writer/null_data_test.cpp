#include <gtest/gtest.h>

#include "support/stream.hpp"
#include "support/throws.hpp"
#include "support/writer_members.hpp"
#include "transports.hpp"

namespace orvane::test {
namespace {

using Records = std::vector<Record>;

std::string rejected(const std::string& length) {
  return "Invalid header; the specified length of data is " + length +
         " but the data pointer is NULL";
}

template <typename Transport>
class NullData : public testing::Test {};
TYPED_TEST_SUITE(NullData, Transports, TransportName);

TYPED_TEST(NullData, WithALengthUsesTheNumberUpAndBeginsTheSegment) {
  TypeParam stream;
  stream.open();
  EXPECT_TRUE(throwsErrno(9, rejected("5"), [&] { stream.writer->writeSegment(nullptr, 5); }));
  EXPECT_EQ(stream.waiting(), 0U);
  EXPECT_EQ(stream.flushed(), Records());
  stream.writer->endSegment();
  stream.write("a");
  EXPECT_EQ(
      stream.flushed(),
      (Records{{.type = 2, .seqNo = 3, .segmentDone = 0},
               {.type = 1, .seqNo = 4, .segmentNo = 1, .segmentDone = 0, .data = bytesOf("a")}}));
}

TYPED_TEST(NullData, WithALengthHasFilledTheHeader) {
  TypeParam stream;
  stream.open();
  stream.writer->setSegmentAlg(kOrvaneSegUnbounded, 11, 22, 33);
  EXPECT_TRUE(throwsErrno(9, rejected("5"), [&] { stream.writer->writeSegment(nullptr, 5); }));
  pvk_shm_message_t expected;
  expected.type = 1;
  expected.len = 5;
  expected.seqNo = 2;
  expected.segmentDone = 0;
  expected.segAlg = 1;
  expected.segParam1 = 11;
  expected.segParam2 = 22;
  expected.segParam3 = 33;
  EXPECT_TRUE(headerOf(*stream.writer) == expected);
}

TYPED_TEST(NullData, WithALengthFlushesForItsRoomFirst) {
  TypeParam stream;
  stream.open();
  stream.writer->setSegmentAlg(kOrvaneSegUnbounded, 0, 0, 0);
  stream.write(std::string(kLargestRecord, 'x'));
  EXPECT_TRUE(throwsErrno(9, rejected("5"), [&] { stream.writer->writeSegment(nullptr, 5); }));
  ASSERT_EQ(stream.waiting(), 1U);
  EXPECT_EQ(stream.sent().at(0).data, Bytes(kLargestRecord, 'x'));
  EXPECT_EQ(stream.flushed(), Records());
}

TEST(NullData, WithALengthIsRejectedForItsSizeFirst) {
  Stream stream;
  stream.open();
  EXPECT_TRUE(throwsErrno(85,
                          "Segment too large error.  Received segment of size 131073 bytes, but "
                          "the maximum allowed segment size is 131072 bytes",
                          [&] { stream.writer.writeSegment(nullptr, 131073); }));
  EXPECT_TRUE(throwsErrno(89,
                          "Could not fit header (type=1) with data length 131072 into the batch, "
                          "even after batch has been flushed",
                          [&] { stream.writer.writeSegment(nullptr, 131072); }));
}

TYPED_TEST(NullData, WithALengthWhoseLow32BitsAreZeroIsAnEmptyRecord) {
  TypeParam stream;
  stream.open();
  stream.writer->writeSegment(nullptr, 0x100000000);
  EXPECT_EQ(stream.flushed(), (Records{{.type = 1, .seqNo = 2}}));
}

TYPED_TEST(NullData, DoesNotChangeTheTypeThatMakesAnEndRedundant) {
  TypeParam stream;
  stream.open();
  stream.write("a");
  stream.writer->endSegment();
  EXPECT_TRUE(throwsErrno(9, rejected("1"), [&] { stream.writer->writeSegment(nullptr, 1); }));
  stream.writer->endSegment();
  EXPECT_EQ(stream.flushed().size(), 2U) << "no second end";
}

TEST(NullData, DoesNotChangeThatTypeWhenItsRoomNeededAFlush) {
  Stream stream;
  stream.open();
  stream.write(std::string(968, 'x'));
  const pvk_shm_message_t end = recordHeader(2, 1);
  EXPECT_TRUE(
      throwsErrno(9, rejected("1"), [&] { stream.writer.write_data(&end, nullptr, 0, false); }));
  stream.pair.discardAll();
  stream.writer.endSegment();
  EXPECT_EQ(stream.flushed(), (Records{{.type = 2, .seqNo = 3, .segmentDone = 0}}));
}

}  // namespace
}  // namespace orvane::test
