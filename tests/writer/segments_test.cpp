#include <gtest/gtest.h>

#include "support/stream.hpp"
#include "support/throws.hpp"
#include "support/writer_members.hpp"
#include "texts.hpp"
#include "transports.hpp"

namespace orvane::test {
namespace {

constexpr const char* kWrongAlgorithm =
    "Could not write segment data because wrong algorithm has been set";
constexpr unsigned long kFourGiB = 0x100000000;

TEST(MaxSegmentSize, Is128KiB) {
  EXPECT_EQ(ShmWriter::getMaxSegmentSize(), 131072U);
}

template <typename Transport>
class WriteSegment : public testing::Test {};
TYPED_TEST_SUITE(WriteSegment, Transports, TransportName);

TYPED_TEST(WriteSegment, AppendsOneRecordWithoutSendingIt) {
  TypeParam stream;
  stream.open();
  stream.write("hello");
  EXPECT_EQ(stream.waiting(), 0U);
  EXPECT_EQ(
      stream.flushed(),
      (std::vector<Record>{{.type = 1, .seqNo = 2, .segmentDone = 0, .data = bytesOf("hello")}}));
}

TYPED_TEST(WriteSegment, OfAClosedWriterChangesNothing) {
  TypeParam stream;
  stream.writer->setSegmentAlg(static_cast<orvane_seg_state_t>(2), 0, 0, 0);
  EXPECT_TRUE(throwsErrno(44, kNotOpen, [&] { stream.write("a"); }));
  EXPECT_EQ(static_cast<int>(lastSegmentStateOf(*stream.writer)), 0);
  stream.writer->setSegmentAlg(kOrvaneSegBounded, 0, 0, 0);
  stream.writer->stop(false);
  EXPECT_EQ(stream.sent(), (std::vector<Record>{{.type = 4, .seqNo = 1}}));
}

TYPED_TEST(WriteSegment, OfAnUnknownStateChangesNothing) {
  TypeParam stream;
  stream.open();
  for (int state : {2, -1, 0x7FFFFFFF}) {
    stream.writer->setSegmentAlg(static_cast<orvane_seg_state_t>(state), 1, 2, 3);
    EXPECT_TRUE(throwsErrno(44, kWrongAlgorithm, [&] { stream.write("a"); })) << state;
  }
  EXPECT_EQ(static_cast<int>(lastSegmentStateOf(*stream.writer)), 0);
  stream.writer->setSegmentAlg(kOrvaneSegBounded, 0, 0, 0);
  stream.writer->stop(false);
  EXPECT_EQ(stream.sent(), (std::vector<Record>{{.type = 4, .seqNo = 2}}));
}

TYPED_TEST(WriteSegment, CarriesStateAndParametersFromTheNextRecordOn) {
  TypeParam stream;
  stream.open();
  stream.write("a");
  stream.writer->setSegmentAlg(kOrvaneSegUnbounded, 11, 22, 33);
  stream.write("b");
  EXPECT_EQ(stream.flushed(),
            (std::vector<Record>{{.type = 1, .seqNo = 2, .segmentDone = 0, .data = bytesOf("a")},
                                 {.type = 1,
                                  .seqNo = 3,
                                  .segmentDone = 0,
                                  .segAlg = 1,
                                  .segParam1 = 11,
                                  .segParam2 = 22,
                                  .segParam3 = 33,
                                  .data = bytesOf("b")}}));
}

TYPED_TEST(WriteSegment, CutsParametersToTheirLow32Bits) {
  TypeParam stream;
  stream.open();
  stream.writer->setSegmentAlg(kOrvaneSegBounded, 0x1FFFFFFFF, 0x200000002, 0xFFFFFFFF00000003);
  stream.write("");
  EXPECT_EQ(stream.flushed(),
            (std::vector<Record>{
                {.type = 1, .seqNo = 2, .segParam1 = 0xFFFFFFFF, .segParam2 = 2, .segParam3 = 3}}));
}

TYPED_TEST(WriteSegment, KeepsTheHeadersMagicAndSegmentNumber) {
  TypeParam stream;
  stream.open();
  headerOf(*stream.writer).segmentNo = 6;
  headerOf(*stream.writer).magic = 7;
  stream.write("a");
  EXPECT_EQ(stream.flushed(), (std::vector<Record>{{.type = 1,
                                                    .seqNo = 2,
                                                    .segmentNo = 6,
                                                    .segmentDone = 0,
                                                    .magic = 7,
                                                    .data = bytesOf("a")}}));
}

TYPED_TEST(WriteSegment, OfNoBytesStoresARecordAndBeginsNoSegment) {
  TypeParam stream;
  stream.open();
  stream.writer->writeSegment(nullptr, 0);
  EXPECT_EQ(stream.flushed(), (std::vector<Record>{{.type = 1, .seqNo = 2, .segmentDone = 1}}));
}

TYPED_TEST(WriteSegment, OfNoBytesLeavesABegunSegmentBegun) {
  TypeParam stream;
  stream.open();
  stream.write("a");
  stream.write("");
  EXPECT_EQ(stream.flushed().at(1), (Record{.type = 1, .seqNo = 3, .segmentDone = 0}));
}

TYPED_TEST(WriteSegment, UsesTheLow32BitsOfALength) {
  TypeParam stream;
  stream.open();
  const Bytes data = bytesOf("hello");
  stream.writer->setSegmentAlg(kOrvaneSegUnbounded, 0, 0, 0);
  stream.writer->writeSegment(data.data(), kFourGiB + 5);
  EXPECT_EQ(stream.flushed(),
            (std::vector<Record>{
                {.type = 1, .seqNo = 2, .segmentDone = 0, .segAlg = 1, .data = bytesOf("hello")}}));
}

TYPED_TEST(WriteSegment, OfExactly4GiBCountsAsEmpty) {
  TypeParam stream;
  stream.open();
  const unsigned char byte = 1;
  stream.writer->writeSegment(&byte, kFourGiB);
  EXPECT_EQ(stream.flushed(), (std::vector<Record>{{.type = 1, .seqNo = 2, .segmentDone = 1}}));
}

TYPED_TEST(WriteSegment, OfTooManyBytesHasUsedItsSequenceNumber) {
  TypeParam stream;
  stream.open();
  EXPECT_TRUE(throwsErrno(85,
                          "Segment too large error.  Received segment of size 131073 bytes, but "
                          "the maximum allowed segment size is 131072 bytes",
                          [&] { stream.write(std::string(131073, 'x')); }));
  stream.writer->endSegment();
  EXPECT_EQ(stream.flushed(), (std::vector<Record>{{.type = 2, .seqNo = 3, .segmentDone = 0}}));
  stream.write(std::string(131072, 'x'));
  EXPECT_EQ(stream.flushed().at(0).seqNo, 4U);
}

TYPED_TEST(WriteSegment, OfManyBytesIsStoredInStateOne) {
  TypeParam stream;
  stream.open();
  stream.writer->setSegmentAlg(kOrvaneSegUnbounded, 0, 0, 0);
  stream.write(std::string(131073, 'x'));
  EXPECT_EQ(stream.flushed().at(0).data.size(), 131073U);
}

TEST(WriteSegment, FlushesForRoomWithTheWritersTimeout) {
  Stream stream({.timeout = 1});
  stream.open();
  stream.write(std::string(968, 'x'));
  stream.pair.fill();
  EXPECT_TRUE(throwsErrno(15, "Timed out after waiting 1s to send data to orvaned on stream stream",
                          [&] { stream.write("a"); }));
  stream.pair.discardAll();
  stream.write("b");
  EXPECT_EQ(stream.sent().at(0).seqNo, 2U);
  EXPECT_EQ(stream.flushed().at(0).seqNo, 4U);
}

TYPED_TEST(WriteSegment, MayChangeItsStateWithinAStream) {
  TypeParam stream;
  stream.open();
  stream.write("a");
  stream.writer->setSegmentAlg(kOrvaneSegUnbounded, 0, 0, 0);
  EXPECT_NO_THROW(stream.write("b"));
  EXPECT_EQ(static_cast<int>(lastSegmentStateOf(*stream.writer)), 1);
  const std::vector<Record> records = stream.flushed();
  EXPECT_EQ(records.at(0).segAlg, 0U);
  EXPECT_EQ(records.at(1).segAlg, 1U);
}

}  // namespace
}  // namespace orvane::test
