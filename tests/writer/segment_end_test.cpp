#include <gtest/gtest.h>

#include "second_segment.hpp"
#include "support/recording_sink.hpp"
#include "support/stream.hpp"
#include "support/throws.hpp"
#include "transports.hpp"

namespace orvane::test {
namespace {

constexpr const char* kNoSegmentToEnd = "Could not end segment data because ShmWriter is not open";

template <typename Transport>
class EndSegment : public testing::Test {};
TYPED_TEST_SUITE(EndSegment, Transports, TransportName);

TYPED_TEST(EndSegment, AppendsOneRecordWithoutSendingIt) {
  TypeParam stream;
  stream.open();
  stream.writer->endSegment();
  EXPECT_EQ(stream.waiting(), 0U);
  EXPECT_EQ(stream.flushed(), (std::vector<Record>{{.type = 2, .seqNo = 2}}));
}

TYPED_TEST(EndSegment, OfAClosedWriterChangesNothing) {
  TypeParam stream;
  EXPECT_TRUE(throwsErrno(44, kNoSegmentToEnd, [&] { stream.writer->endSegment(); }));
  stream.writer->stop(false);
  EXPECT_EQ(stream.sent(), (std::vector<Record>{{.type = 4, .seqNo = 1}}));
}

TEST(EndSegment, OfAClosedWriterIsRejectedEvenIfRedundant) {
  Stream stream;
  const pvk_shm_message_t end = recordHeader(2, 0);
  stream.writer.write_data(&end, nullptr, 0, false);
  EXPECT_TRUE(throwsErrno(44, kNoSegmentToEnd, [&] { stream.writer.endSegment(); }));
  stream.writer.stop(false);
  EXPECT_EQ(stream.sent(), (std::vector<Record>{{.type = 2}, {.type = 4, .seqNo = 1}}));
}

TYPED_TEST(EndSegment, TellsThatTheSegmentHeldDataAndBeginsTheNext) {
  TypeParam stream;
  stream.open();
  stream.write("a");
  stream.write("b");
  stream.writer->endSegment();
  stream.write("c");
  EXPECT_EQ(stream.flushed(),
            (std::vector<Record>{
                {.type = 1, .seqNo = 2, .segmentDone = 0, .data = bytesOf("a")},
                {.type = 1, .seqNo = 3, .segmentDone = 0, .data = bytesOf("b")},
                {.type = 2, .seqNo = 4, .segmentDone = 0},
                {.type = 1, .seqNo = 5, .segmentNo = 1, .segmentDone = 0, .data = bytesOf("c")}}));
}

TYPED_TEST(EndSegment, OfAnEmptySegmentIsSentAndAdvancesNothing) {
  TypeParam stream;
  stream.open();
  stream.writer->endSegment();
  stream.write("");
  stream.writer->endSegment();
  EXPECT_EQ(stream.flushed(),
            (std::vector<Record>{
                {.type = 2, .seqNo = 2}, {.type = 1, .seqNo = 3}, {.type = 2, .seqNo = 4}}));
}

TYPED_TEST(EndSegment, CarriesAnyStateAndTheLow32BitsOfTheParameters) {
  TypeParam stream;
  stream.open();
  stream.writer->setSegmentAlg(static_cast<orvane_seg_state_t>(2), 0x1FFFFFFFF, 0x200000002,
                               0x300000003);
  EXPECT_ANY_THROW(stream.write("a"));
  stream.writer->endSegment();
  EXPECT_EQ(stream.flushed(), (std::vector<Record>{{.type = 2,
                                                    .seqNo = 2,
                                                    .segAlg = 2,
                                                    .segParam1 = 0xFFFFFFFF,
                                                    .segParam2 = 2,
                                                    .segParam3 = 3}}));
  stream.writer->setSegmentAlg(static_cast<orvane_seg_state_t>(-1), 0, 0, 0);
  stream.writer->stop(false);
  EXPECT_EQ(stream.sent().at(0).segAlg, 0xFFFFFFFFU);
}

TYPED_TEST(EndSegment, RewritesTypeLengthAndSegmentFieldsOnly) {
  TypeParam stream;
  stream.open();
  writeIntoSecondSegment(stream);
  stream.writer->endSegment();
  EXPECT_EQ(stream.flushed(),
            (std::vector<Record>{{.type = 2, .seqNo = 5, .segmentNo = 1, .segmentDone = 0}}));
}

TYPED_TEST(EndSegment, InARowStoresOneRecord) {
  TypeParam stream;
  stream.open();
  stream.write("a");
  stream.writer->endSegment();
  stream.writer->endSegment();
  EXPECT_EQ(stream.flushed().size(), 2U);
  stream.writer->endSegment();
  EXPECT_EQ(stream.flushed().size(), 0U) << "a flush in between changes nothing";
  stream.writer->stop(false);
  EXPECT_EQ(stream.sent(), (std::vector<Record>{{.type = 4, .seqNo = 4, .segmentNo = 1}}));
}

TEST(EndSegment, IsRedundantAfterTheCallersOwnEndRecord) {
  Stream stream;
  stream.open();
  stream.write("a");
  const pvk_shm_message_t end = recordHeader(2, 0);
  stream.writer.write_data(&end, nullptr, 0, false);
  stream.writer.endSegment();
  const pvk_shm_message_t other = recordHeader(9, 0);
  stream.writer.write_data(&other, nullptr, 0, false);
  stream.writer.endSegment();
  EXPECT_EQ(stream.flushed().back(), (Record{.type = 2, .seqNo = 3, .segmentDone = 0}));
}

TYPED_TEST(EndSegment, IsStoredAgainAfterAnyOtherRecord) {
  TypeParam stream;
  stream.open();
  stream.writer->endSegment();
  stream.writer->stop(false);
  stream.discardAll();
  stream.writer->endSegment();
  EXPECT_EQ(stream.flushed(), (std::vector<Record>{{.type = 2, .seqNo = 4}}));
}

TYPED_TEST(EndSegment, ThatFailsHasCountedAndKeepsTheSegmentOpen) {
  TypeParam stream;
  stream.open();
  stream.writer->setSegmentAlg(kOrvaneSegUnbounded, 0, 0, 0);
  stream.write(std::string(kLargestRecord, 'x'));
  stream.writer->setSegmentAlg(kOrvaneSegBounded, 0, 0, 0);
  stream.post(1001, "no");
  EXPECT_TRUE(throwsErrno(1001, "no", [&] { stream.writer->endSegment(); }));
  stream.discardAll();
  stream.writer->endSegment();
  EXPECT_EQ(stream.flushed(), (std::vector<Record>{{.type = 2, .seqNo = 4, .segmentDone = 0}}));
  stream.writer->stop(false);
  EXPECT_EQ(stream.sent(), (std::vector<Record>{{.type = 4, .seqNo = 5, .segmentNo = 1}}));
}

TEST(EndSegment, FlushesForRoomWithTheWritersTimeout) {
  Stream stream({.timeout = 1});
  stream.open();
  stream.write(std::string(968, 'x'));
  stream.pair.fill();
  EXPECT_TRUE(throwsErrno(15, "Timed out after waiting 1s to send data to orvaned on stream stream",
                          [&] { stream.writer.endSegment(); }));
}

TYPED_TEST(EndSegment, TracesARedundantEnd) {
  TypeParam stream;
  stream.open();
  stream.writer->endSegment();
  RecordingSink sink(RecordingSink::Tracing::on);
  stream.writer->endSegment();
  EXPECT_EQ(sink.take(),
            (std::vector{entered("endSegment"), traced("endSegment: ignoring redundant 2 header"),
                         left("endSegment")}));
}

}  // namespace
}  // namespace orvane::test
