#include <gtest/gtest.h>

#include <limits>

#include "support/stream.hpp"
#include "support/throws.hpp"
#include "support/writer_members.hpp"
#include "transports.hpp"

// Numbers whose low byte or low two bytes look like another one's, and counters beyond 32 bits.
namespace orvane::test {
namespace {

using Records = std::vector<Record>;

constexpr const char* kTooLarge =
    "Segment too large error.  Received segment of size 131073 bytes, but the maximum allowed "
    "segment size is 131072 bytes";

void writeType(Stream& stream, std::uint32_t type) {
  const pvk_shm_message_t header = recordHeader(type, 0);
  stream.writer.write_data(&header, nullptr, 0, false);
}

TEST(RecordState, IsUnboundedForTheWholeNumberOneOnly) {
  Stream stream({.geometry = {.messageSize = 200000}});
  const Bytes data(131073, 'x');
  for (std::uint32_t state : {256U, 257U, 65536U, 65537U, 65792U, 65793U, 0x80000001U}) {
    const pvk_shm_message_t header = recordHeader(9, 131073, state);
    EXPECT_TRUE(throwsErrno(85, kTooLarge, [&] {
      stream.writer.write_data(&header, data.data(), 0, false);
    })) << state;
  }
}

template <typename Transport>
class SegmentState : public testing::Test {};
TYPED_TEST_SUITE(SegmentState, Transports, TransportName);

TYPED_TEST(SegmentState, IsAcceptedForTheWholeNumbersZeroAndOneOnly) {
  TypeParam stream;
  stream.open();
  for (unsigned int state :
       {256U, 257U, 65536U, 65537U, 65792U, 65793U, 0x80000000U, 0x80000001U}) {
    stream.writer->setSegmentAlg(static_cast<orvane_seg_state_t>(state), 0, 0, 0);
    EXPECT_TRUE(throwsErrno(44, "Could not write segment data because wrong algorithm has been set",
                            [&] { stream.write("a"); }))
        << state;
  }
  stream.writer->endSegment();
  EXPECT_EQ(stream.flushed(), (Records{{.type = 2, .seqNo = 2, .segAlg = 0x80000001}}));
}

TEST(LastType, MakesAnEndRedundantForTheWholeNumberTwoOnly) {
  Stream stream;
  stream.open();
  std::uint64_t seqNo = 1;
  for (std::uint32_t type : {258U, 65538U, 65794U, 0x80000002U, 0xFFFFFF02U, 0xFFFFFFFEU}) {
    writeType(stream, type);
    stream.writer.endSegment();
    EXPECT_EQ(stream.flushed(), (Records{{.type = type}, {.type = 2, .seqNo = ++seqNo}}));
  }
}

template <typename Transport>
class Length : public testing::Test {};
TYPED_TEST_SUITE(Length, Transports, TransportName);

TYPED_TEST(Length, BeginsASegmentWhenAnyOfItsBitsIsSet) {
  for (std::uint32_t length : {256U, 65536U, 131072U}) {
    TypeParam stream;
    stream.open();
    stream.write(std::string(length, 'x'));
    EXPECT_EQ(stream.flushed(),
              (Records{{.type = 1, .seqNo = 2, .segmentDone = 0, .data = Bytes(length, 'x')}}));
  }
}

TEST(Length, InAnExceptionIsUnsigned) {
  Stream stream;
  const pvk_shm_message_t header = recordHeader(0x80000000, 0x80000000);
  EXPECT_TRUE(
      throwsErrno(85,
                  "Segment too large error.  Received segment of size 2147483648 bytes, but "
                  "the maximum allowed segment size is 131072 bytes",
                  [&] { stream.writer.write_data(&header, nullptr, 0, false); }));
  const pvk_shm_message_t unbounded = recordHeader(0x80000000, 0x80000000, 1);
  EXPECT_TRUE(throwsErrno(89,
                          "Could not fit header (type=2147483648) with data length 2147483648 into "
                          "the batch, even after batch has been flushed",
                          [&] { stream.writer.write_data(&unbounded, nullptr, 0, false); }));
}

template <typename Transport>
class SequenceNumber : public testing::Test {};
TYPED_TEST_SUITE(SequenceNumber, Transports, TransportName);

TYPED_TEST(SequenceNumber, Has64BitsInEveryRecordOfTheWriter) {
  TypeParam stream;
  stream.open();
  std::uint64_t& seqNo = headerOf(*stream.writer).seqNo;
  seqNo = 0xFFFFFFFF;
  stream.write("a");
  EXPECT_EQ(stream.flushed().at(0).seqNo, 0x100000000U);
  seqNo = 0xFFFFFFFF;
  stream.writer->endSegment();
  EXPECT_EQ(stream.flushed().at(0).seqNo, 0x100000000U);
  seqNo = 0xFFFFFFFF;
  stream.writer->stop(false);
  EXPECT_EQ(stream.sent().at(0).seqNo, 0x100000000U);
  seqNo = 0x7FFFFFFFFFFFFFFF;
  stream.close();
  EXPECT_EQ(stream.sent().at(0).seqNo, 0x8000000000000000U);
}

TYPED_TEST(SequenceNumber, Has64BitsInTheMessageAboutMixedStates) {
  TypeParam stream;
  stream.open();
  headerOf(*stream.writer).seqNo = 0xFFFFFFFFFFFFFFFE;
  segmentFirstWriteOf(*stream.writer) = false;
  stream.writer->setSegmentAlg(kOrvaneSegUnbounded, 0, 0, 0);
  EXPECT_TRUE(throwsErrno(
      89,
      "Could not write segment data for sequence 18446744073709551615 because segment states are "
      "not homogeneous (last state=0, current state=1)",
      [&] { stream.write("a"); }));
}

template <typename Transport>
class SegmentNumber : public testing::Test {};
TYPED_TEST_SUITE(SegmentNumber, Transports, TransportName);

TYPED_TEST(SegmentNumber, Has64BitsAfterAnEndAStopAndAClose) {
  TypeParam stream;
  stream.open();
  std::uint64_t& segmentNo = headerOf(*stream.writer).segmentNo;
  segmentNo = 0xFFFFFFFF;
  stream.write("a");
  stream.writer->endSegment();
  EXPECT_EQ(segmentNo, 0x100000000U);
  segmentNo = 0xFFFFFFFF;
  stream.write("b");
  stream.writer->stop(false);
  EXPECT_EQ(segmentNo, 0x100000000U);
  stream.discardAll();
  stream.write("c");
  stream.close();
  EXPECT_EQ(stream.sent().at(0).segmentNo, 0x100000000U);
  EXPECT_EQ(segmentNo, 0x100000001U);
}

template <typename Transport>
class AnswerStatus : public testing::Test {};
TYPED_TEST_SUITE(AnswerStatus, Transports, TransportName);

TYPED_TEST(AnswerStatus, IsAnErrorWhenAnyOfItsBitsIsSet) {
  TypeParam stream;
  for (std::int32_t status : {256, 65536, 0x1000000, std::numeric_limits<std::int32_t>::min()}) {
    stream.post(status, "no");
    EXPECT_TRUE(throwsErrno(status, "no", [&] { stream.flush(); })) << status;
  }
}

template <typename Transport>
class WriterTimeout : public testing::Test {};
TYPED_TEST_SUITE(WriterTimeout, Transports, TransportName);

TYPED_TEST(WriterTimeout, IsCheckedInFullWidth) {
  TypeParam stream;
  for (unsigned int timeout : {256U, 65536U, 65537U, 86399U}) {
    EXPECT_NO_THROW(stream.another(timeout)) << timeout;
  }
  for (const char* timeout : {"131073", "2147483648", "2147483649", "4294901761"}) {
    EXPECT_TRUE(
        throwsErrno(9,
                    std::string("Invalid timeout, specified value ") + timeout +
                        " was more than maximum allowed value of 86400",
                    [&] { stream.another(static_cast<unsigned int>(std::stoul(timeout))); }));
  }
}

}  // namespace
}  // namespace orvane::test
