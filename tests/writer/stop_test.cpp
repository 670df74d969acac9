#include <gtest/gtest.h>

#include "second_segment.hpp"
#include "support/recording_sink.hpp"
#include "support/stream.hpp"
#include "support/throws.hpp"

namespace orvane::test {
namespace {

TEST(Stop, OfAFreshWriterSendsOne) {
  Stream stream;
  stream.writer.stop(false);
  EXPECT_EQ(stream.pair.receive().bytes,
            hex("ff00ee11 00000001"
                "00000004 00000000 0000000000000001 0000000000000000 00000001 00000000"
                "00000000 00000000 00000000 aabbccdd"));
}

TEST(Stop, OfAFreshWriterLeavesItClosed) {
  QueuePair pair;
  {
    ShmWriter writer("stream", pair.name(), 7, 0, false);
    writer.stop(true);
    EXPECT_EQ(pair.receiveRecords(), (std::vector<Record>{{.type = 4, .seqNo = 1}}));
    EXPECT_ANY_THROW(writer.writeSegment(nullptr, 0));
  }
  EXPECT_EQ(pair.waiting(), 0U) << "its destructor sends no close";
}

TEST(Stop, OfAClosedWriterIsSentAndLeavesItClosed) {
  QueuePair pair;
  {
    ShmWriter writer("stream", pair.name(), 7, 0, false);
    writer.open();
    writer.close();
    pair.discardAll();
    writer.stop(false);
    EXPECT_EQ(pair.receiveRecords(), (std::vector<Record>{{.type = 4, .seqNo = 3}}));
    EXPECT_ANY_THROW(writer.writeSegment(nullptr, 0));
  }
  EXPECT_EQ(pair.waiting(), 0U);
}

TEST(Stop, LeavesAnOpenWriterOpenAndAcceptingSegments) {
  Stream stream;
  stream.open();
  stream.writer.stop(false);
  EXPECT_EQ(stream.sent(), (std::vector<Record>{{.type = 4, .seqNo = 2}}));
  stream.write("a");
  stream.writer.open();  // no effect
  stream.writer.close();
  EXPECT_EQ(stream.sent(),
            (std::vector<Record>{{.type = 1, .seqNo = 3, .segmentDone = 0, .data = bytesOf("a")},
                                 {.type = 3, .seqNo = 4, .segmentDone = 0}}));
}

TEST(Stop, IsFollowedByTheDestructorsClose) {
  QueuePair pair;
  {
    ShmWriter writer("stream", pair.name(), 7, 0, false);
    writer.open();
    writer.stop(false);
    pair.discardAll();
  }
  EXPECT_EQ(pair.receiveRecords(), (std::vector<Record>{{.type = 3, .seqNo = 3}}));
}

TEST(Stop, IsSentEveryTime) {
  Stream stream;
  stream.writer.stop(true);
  stream.writer.stop(false);
  EXPECT_EQ(stream.sent().at(0).seqNo, 1U);
  EXPECT_EQ(stream.sent().at(0).seqNo, 2U);
}

TEST(Stop, CarriesPendingDataAndTheLow32BitsOfTheParameters) {
  Stream stream;
  stream.open();
  stream.writer.setSegmentAlg(kOrvaneSegUnbounded, 0x100000001, 0x200000002, 0x300000003);
  stream.write("a");
  stream.writer.stop(true);
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

TEST(Stop, EndsAnUnfinishedSegmentAfterItWasSent) {
  Stream stream;
  stream.open();
  stream.write("a");
  stream.writer.stop(false);
  EXPECT_EQ(stream.sent().back(), (Record{.type = 4, .seqNo = 3, .segmentDone = 0}));
  stream.write("b");
  EXPECT_EQ(stream.flushed(),
            (std::vector<Record>{
                {.type = 1, .seqNo = 4, .segmentNo = 1, .segmentDone = 0, .data = bytesOf("b")}}));
}

TEST(Stop, RewritesTypeLengthAndSegmentFieldsOnly) {
  Stream stream;
  stream.open();
  writeIntoSecondSegment(stream);
  stream.writer.stop(false);
  EXPECT_EQ(stream.sent(),
            (std::vector<Record>{{.type = 4, .seqNo = 5, .segmentNo = 1, .segmentDone = 0}}));
}

TEST(Stop, WithItsOwnTimeoutOfZeroFailsAtOnceOnAFullQueue) {
  Stream stream({.timeout = 86400, .stopTimeout = 0});
  stream.pair.fill();
  EXPECT_TRUE(throwsErrno(15, "Timed out after waiting 0s to send data to orvaned on stream stream",
                          [&] { stream.writer.stop(true); }));
}

TEST(Stop, WithoutItsOwnTimeoutWaitsForTheWriters) {
  Stream stream({.timeout = 1, .stopTimeout = 86400});
  stream.pair.fill();
  EXPECT_TRUE(throwsErrno(15, "Timed out after waiting 1s to send data to orvaned on stream stream",
                          [&] { stream.writer.stop(false); }));
}

TEST(Stop, ThatFailsHasCountedAndKeepsTheSegmentOpen) {
  Stream stream;
  stream.open();
  stream.write("a");
  stream.pair.post(1003, "not now");
  EXPECT_TRUE(throwsErrno(1003, "not now", [&] { stream.writer.stop(true); }));
  stream.pair.discardAll();
  stream.writer.stop(true);
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
