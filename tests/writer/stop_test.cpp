#include <gtest/gtest.h>

#include "second_segment.hpp"
#include "support/recording_sink.hpp"
#include "support/stream.hpp"
#include "support/throws.hpp"
#include "transports.hpp"

namespace orvane::test {
namespace {

template <typename Transport>
class Stop : public testing::Test {};
TYPED_TEST_SUITE(Stop, Transports, TransportName);

TYPED_TEST(Stop, OfAFreshWriterSendsOne) {
  TypeParam stream;
  stream.writer->stop(false);
  EXPECT_EQ(stream.received(),
            hex("ff00ee11 00000001"
                "00000004 00000000 0000000000000001 0000000000000000 00000001 00000000"
                "00000000 00000000 00000000 aabbccdd"));
}

TYPED_TEST(Stop, OfAFreshWriterLeavesItClosed) {
  TypeParam stream;
  stream.writer->stop(true);
  EXPECT_EQ(stream.sent(), (std::vector<Record>{{.type = 4, .seqNo = 1}}));
  EXPECT_ANY_THROW(stream.write(""));
  stream.destroy();
  EXPECT_EQ(stream.waiting(), 0U) << "its destructor sends no close";
}

TYPED_TEST(Stop, OfAClosedWriterIsSentAndLeavesItClosed) {
  TypeParam stream;
  stream.open();
  stream.close();
  stream.discardAll();
  stream.writer->stop(false);
  EXPECT_EQ(stream.sent(), (std::vector<Record>{{.type = 4, .seqNo = 3}}));
  EXPECT_ANY_THROW(stream.write(""));
  stream.destroy();
  EXPECT_EQ(stream.waiting(), 0U);
}

TYPED_TEST(Stop, LeavesAnOpenWriterOpenAndAcceptingSegments) {
  TypeParam stream;
  stream.open();
  stream.writer->stop(false);
  EXPECT_EQ(stream.sent(), (std::vector<Record>{{.type = 4, .seqNo = 2}}));
  stream.write("a");
  stream.begin();  // no effect
  stream.close();
  EXPECT_EQ(stream.sent(),
            (std::vector<Record>{{.type = 1, .seqNo = 3, .segmentDone = 0, .data = bytesOf("a")},
                                 {.type = 3, .seqNo = 4, .segmentDone = 0}}));
}

TYPED_TEST(Stop, IsFollowedByTheDestructorsClose) {
  TypeParam stream;
  stream.open();
  stream.writer->stop(false);
  stream.discardAll();
  stream.destroy();
  EXPECT_EQ(stream.sent(), (std::vector<Record>{{.type = 3, .seqNo = 3}}));
}

TYPED_TEST(Stop, IsSentEveryTime) {
  TypeParam stream;
  stream.writer->stop(true);
  stream.writer->stop(false);
  EXPECT_EQ(stream.sent().at(0).seqNo, 1U);
  EXPECT_EQ(stream.sent().at(0).seqNo, 2U);
}

TYPED_TEST(Stop, CarriesPendingDataAndTheLow32BitsOfTheParameters) {
  TypeParam stream;
  stream.open();
  stream.writer->setSegmentAlg(kOrvaneSegUnbounded, 0x100000001, 0x200000002, 0x300000003);
  stream.write("a");
  stream.writer->stop(true);
  EXPECT_EQ(stream.sent(), (std::vector<Record>{{.type = 1,
                                                 .seqNo = 2,
                                                 .segmentDone = 0,
                                                 .segAlg = 1,
                                                 .segParam1 = 1,
                                                 .segParam2 = 2,
                                                 .segParam3 = 3,
                                                 .data = bytesOf("a")},
                                                {.type = 4,
                                                 .seqNo = 3,
                                                 .segmentDone = 0,
                                                 .segAlg = 1,
                                                 .segParam1 = 1,
                                                 .segParam2 = 2,
                                                 .segParam3 = 3}}));
}

TYPED_TEST(Stop, EndsAnUnfinishedSegmentAfterItWasSent) {
  TypeParam stream;
  stream.open();
  stream.write("a");
  stream.writer->stop(false);
  EXPECT_EQ(stream.sent().back(), (Record{.type = 4, .seqNo = 3, .segmentDone = 0}));
  stream.write("b");
  EXPECT_EQ(stream.flushed(),
            (std::vector<Record>{
                {.type = 1, .seqNo = 4, .segmentNo = 1, .segmentDone = 0, .data = bytesOf("b")}}));
}

TYPED_TEST(Stop, RewritesTypeLengthAndSegmentFieldsOnly) {
  TypeParam stream;
  stream.open();
  writeIntoSecondSegment(stream);
  stream.writer->stop(false);
  EXPECT_EQ(stream.sent(),
            (std::vector<Record>{{.type = 4, .seqNo = 5, .segmentNo = 1, .segmentDone = 0}}));
}

TYPED_TEST(Stop, WithItsOwnTimeoutOfZeroFailsAtOnceWithoutRoom) {
  TypeParam stream({.timeout = 86400, .stopTimeout = 0});
  stream.fill();
  EXPECT_TRUE(throwsErrno(15, "Timed out after waiting 0s to send data to orvaned on stream stream",
                          [&] { stream.writer->stop(true); }));
}

TYPED_TEST(Stop, WithoutItsOwnTimeoutWaitsForTheWriters) {
  TypeParam stream({.timeout = 1, .stopTimeout = 86400});
  stream.fill();
  EXPECT_TRUE(throwsErrno(15, "Timed out after waiting 1s to send data to orvaned on stream stream",
                          [&] { stream.writer->stop(false); }));
}

TYPED_TEST(Stop, ThatFailsHasCountedAndKeepsTheSegmentOpen) {
  TypeParam stream;
  stream.open();
  stream.write("a");
  stream.post(1003, "not now");
  EXPECT_TRUE(throwsErrno(1003, "not now", [&] { stream.writer->stop(true); }));
  stream.discardAll();
  stream.writer->stop(true);
  EXPECT_EQ(stream.sent(), (std::vector<Record>{{.type = 4, .seqNo = 4, .segmentDone = 0}}));
  EXPECT_NO_THROW(stream.write("b"));
}

TEST(Stop, TracesItsStepsWithTheTimeoutInForce) {
  Stream stream({.timeout = 7, .stopTimeout = 9});
  RecordingSink sink(RecordingSink::Tracing::on);
  stream.writer.stop(true);
  EXPECT_EQ(sink.take(), (std::vector{entered("stop"), entered("write_data"),
                                      traced("write_data: write header.type =4, len=0, timeout=9s"),
                                      traced("flush_shm_buffer: Sending shm batch of 1"),
                                      left("write_data"), left("stop")}));
  stream.writer.stop(false);
  EXPECT_EQ(sink.take().at(2), traced("write_data: write header.type =4, len=0, timeout=7s"));
}

}  // namespace
}  // namespace orvane::test
