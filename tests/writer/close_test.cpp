#include <gtest/gtest.h>

#include "second_segment.hpp"
#include "support/recording_sink.hpp"
#include "support/stream.hpp"
#include "support/throws.hpp"
#include "texts.hpp"
#include "transports.hpp"

namespace orvane::test {
namespace {

template <typename Transport>
class Close : public testing::Test {};
TYPED_TEST_SUITE(Close, Transports, TransportName);

TYPED_TEST(Close, SendsTheCloseRecordAtOnceAfterPendingData) {
  TypeParam stream;
  stream.open();
  stream.writer->setSegmentAlg(kOrvaneSegUnbounded, 0x11, 0x22, 0x33);
  stream.write("hi");
  stream.writer->endSegment();
  stream.close();
  EXPECT_EQ(stream.received(),
            hex("ff00ee11 00000003"
                "00000001 00000002 0000000000000002 0000000000000000 00000000 00000001"
                "00000011 00000022 00000033 aabbccdd 6869"
                "00000002 00000000 0000000000000003 0000000000000000 00000000 00000001"
                "00000011 00000022 00000033 aabbccdd"
                "00000003 00000000 0000000000000004 0000000000000001 00000001 00000001"
                "00000011 00000022 00000033 aabbccdd"));
  EXPECT_EQ(stream.waiting(), 0U);
}

TYPED_TEST(Close, OfAWriterThatWasNeverOpenedHasNoEffect) {
  TypeParam stream;
  stream.close();
  EXPECT_EQ(stream.waiting(), 0U);
  stream.writer->stop(false);
  EXPECT_EQ(stream.sent(), (std::vector<Record>{{.type = 4, .seqNo = 1}}));
}

TYPED_TEST(Close, OfAClosedWriterHasNoEffect) {
  TypeParam stream;
  stream.open();
  stream.close();
  stream.discardAll();
  stream.close();
  EXPECT_EQ(stream.waiting(), 0U);
  stream.writer->stop(false);
  EXPECT_EQ(stream.sent(), (std::vector<Record>{{.type = 4, .seqNo = 3}}));
}

TYPED_TEST(Close, EndsTheTimeInWhichSegmentsAreAccepted) {
  TypeParam stream;
  stream.open();
  stream.close();
  EXPECT_TRUE(throwsErrno(44, kNotOpen, [&] { stream.write("a"); }));
}

TEST(Close, ThatTimesOutMakingRoomLeavesItsRecordOutOfTheBatch) {
  Stream stream({.timeout = 1});
  stream.open();
  const pvk_shm_message_t header = recordHeader(9, 960);  // leaves 8 bytes of 1024
  stream.writer.write_data(&header, Bytes(960, 'x').data(), 1, false);
  stream.pair.fill();
  EXPECT_TRUE(throwsErrno(15, "Timed out after waiting 1s to send data to orvaned on stream stream",
                          [&] { stream.writer.close(); }));
  stream.pair.discardAll();
  EXPECT_EQ(stream.flushed().size(), 1U);  // without the close
  stream.writer.close();
  EXPECT_EQ(stream.sent(), (std::vector<Record>{{.type = 3, .seqNo = 3}}));
}

TYPED_TEST(Close, CutsParametersToTheirLow32Bits) {
  TypeParam stream;
  stream.open();
  stream.writer->setSegmentAlg(kOrvaneSegBounded, 0x1FFFFFFFF, 0x200000002, 0xFFFFFFFF00000003);
  stream.close();
  EXPECT_EQ(stream.sent(),
            (std::vector<Record>{
                {.type = 3, .seqNo = 2, .segParam1 = 0xFFFFFFFF, .segParam2 = 2, .segParam3 = 3}}));
}

TYPED_TEST(Close, RewritesTypeLengthAndSegmentFieldsOnly) {
  TypeParam stream;
  stream.open();
  writeIntoSecondSegment(stream);
  stream.close();
  EXPECT_EQ(stream.sent(),
            (std::vector<Record>{{.type = 3, .seqNo = 5, .segmentNo = 1, .segmentDone = 0}}));
}

TYPED_TEST(Close, OfAnUnfinishedSegmentCarriesItAndEndsItAfterwards) {
  TypeParam stream;
  stream.open();
  stream.write("a");
  stream.close();
  EXPECT_EQ(stream.sent().back(), (Record{.type = 3, .seqNo = 3, .segmentDone = 0}));
  stream.writer->stop(false);
  EXPECT_EQ(stream.sent(), (std::vector<Record>{{.type = 4, .seqNo = 4, .segmentNo = 1}}));
}

TYPED_TEST(Close, AfterAnEndedSegmentLeavesTheSegmentNumberAlone) {
  TypeParam stream;
  stream.open();
  stream.write("a");
  stream.writer->endSegment();
  stream.close();
  EXPECT_EQ(stream.sent().back(),
            (Record{.type = 3, .seqNo = 4, .segmentNo = 1, .segmentDone = 1}));
  stream.writer->stop(false);
  EXPECT_EQ(stream.sent(), (std::vector<Record>{{.type = 4, .seqNo = 5, .segmentNo = 1}}));
}

TEST(Close, ThatTimesOutKeepsTheWriterOpenAndMayBeRepeatedUnderAHigherNumber) {
  Stream stream({.timeout = 1});
  stream.open();
  stream.write("a");
  stream.pair.fill();
  EXPECT_TRUE(throwsErrno(15, "Timed out after waiting 1s to send data to orvaned on stream stream",
                          [&] { stream.writer.close(); }));
  stream.pair.discardAll();
  stream.writer.close();
  EXPECT_EQ(stream.sent(),
            (std::vector<Record>{{.type = 1, .seqNo = 2, .segmentDone = 0, .data = bytesOf("a")},
                                 {.type = 3, .seqNo = 3, .segmentDone = 0},
                                 {.type = 3, .seqNo = 4, .segmentDone = 0}}));
  EXPECT_TRUE(throwsErrno(44, kNotOpen, [&] { stream.write("b"); }));
}

TEST(Close, AnsweredWithAnErrorKeepsTheWriterOpen) {
  Stream stream;
  stream.open();
  stream.write("a");
  stream.pair.post(1002, "disk full");
  EXPECT_TRUE(throwsErrno(1002, "disk full", [&] { stream.writer.close(); }));
  EXPECT_EQ(stream.sent().back(), (Record{.type = 3, .seqNo = 3, .segmentDone = 0}));
  EXPECT_NO_THROW(stream.write("b"));
  stream.writer.close();
  EXPECT_EQ(stream.sent(),
            (std::vector<Record>{{.type = 1, .seqNo = 4, .segmentDone = 0, .data = bytesOf("b")},
                                 {.type = 3, .seqNo = 5, .segmentDone = 0}}));
}

TEST(Close, TracesItsSteps) {
  Stream stream;
  stream.open();
  stream.write("a");
  RecordingSink sink(RecordingSink::Tracing::on);
  stream.writer.close();
  EXPECT_EQ(sink.take(), (std::vector{entered("close"), entered("write_data"),
                                      traced("write_data: write header.type =3, len=0, timeout=7s"),
                                      traced("flush_shm_buffer: Sending shm batch of 2"),
                                      left("write_data"), left("close")}));
}

TYPED_TEST(Close, OfAWriterThatIsNotOpenOnlyTracesItsScope) {
  TypeParam stream;
  RecordingSink sink(RecordingSink::Tracing::on);
  stream.close();
  EXPECT_EQ(sink.take(), (std::vector{entered("close"), left("close")}));
}

}  // namespace
}  // namespace orvane::test
