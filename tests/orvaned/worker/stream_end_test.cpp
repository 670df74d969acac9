// How streams begin and end: the valid orders of open, close and stop, and what comes outside.

#include <gtest/gtest.h>

#include "support/served.hpp"

namespace orvane::test::stream_end {
namespace {

using Answers = std::vector<Answer>;
using Names = std::vector<std::string>;

// The records of a writer whose stream consists of one segment.
const Record kOpen{.type = 0, .seqNo = 0};
const Record kData{.type = 1, .seqNo = 2, .segmentDone = 0, .data = bytesOf("data")};
const Record kMoreData{.type = 1, .seqNo = 3, .segmentDone = 0, .data = bytesOf("more")};
const Record kEnd{.type = 2, .seqNo = 4, .segmentDone = 0};
const Record kClose{.type = 3, .seqNo = 5};
const Record kStop{.type = 4, .seqNo = 5};

constexpr char kEmptyReceipt[] = "receipt stream=RUN_0 records=0 bytes=0 segments=0 end=closed";

class StreamEndTest : public testing::Test {
 protected:
  Served served;
};

TEST_F(StreamEndTest, AStoppedStreamKeepsItsLastSegmentMarkedAsUnfinished) {
  EXPECT_EQ(served.ask({kOpen, kData, kEnd}), (Answers{{0, ""}}));
  Record next = kData;
  next.seqNo = 5;
  next.segmentNo = 1;
  Record stop = kStop;
  stop.seqNo = 6;
  EXPECT_EQ(served.ask({next, stop}),
            (Answers{{0, "receipt stream=RUN_0 records=2 bytes=8 segments=2 end=stopped"}}));
  EXPECT_EQ(served.filesOf(0), (Names{"manifest", "segment-000000", "segment-000001.part"}));
  EXPECT_EQ(served.manifest(0),
            "format=2\n"
            "queue=QUEUE\n"
            "stream=RUN_0\n"
            "begun=TIME\n"
            "segment number=0 records=1 bytes=4 algorithm=0 parameters=0,0,0 "
            "crc32=adf3f363 file=segment-000000\n"
            "segment number=1 records=1 bytes=4 algorithm=0 parameters=0,0,0 "
            "crc32=adf3f363 file=segment-000001.part\n"
            "other-records=0 bytes=0 crc32=00000000\n"
            "skipped=1\n"
            "receipt stream=RUN_0 records=2 bytes=8 segments=2 end=stopped\n"
            "records=2\n"
            "bytes=8\n"
            "end=stopped\n"
            "reason=\n");
}

TEST_F(StreamEndTest, AnotherOpenCutsTheStreamOff) {
  served.ask({kOpen, kData});
  EXPECT_EQ(served.ask({kOpen}), (Answers{{0, ""}}));
  EXPECT_EQ(served.endOf(0), "end=cut-off\nreason=another stream was opened\n");
  EXPECT_EQ(served.filesOf(0), (Names{"manifest", "segment-000000.part"}));
  EXPECT_EQ(served.ask({kData, kEnd, kClose}),
            (Answers{{0, "receipt stream=RUN_1 records=1 bytes=4 segments=1 end=closed"}}));
  EXPECT_EQ(served.file(1, "segment-000000"), "data");
}

TEST_F(StreamEndTest, ARepeatedOpenLeavesNoEmptyFolder) {
  EXPECT_EQ(served.ask({kOpen, kOpen}), (Answers{{0, ""}}));
  EXPECT_EQ(served.ask({kOpen}), (Answers{{0, ""}}));
  EXPECT_EQ(served.ask({kData, kClose}),
            (Answers{{0, "receipt stream=RUN_0 records=1 bytes=4 segments=1 end=closed"}}));
  EXPECT_EQ(served.stored(), Names{"QUEUE-RUN_0"});
}

TEST_F(StreamEndTest, ARepeatedOpenMayCarryAnotherNumber) {
  served.ask({kOpen});
  Record open = kOpen;
  open.seqNo = 10;
  served.ask({open});
  EXPECT_EQ(served.ask({kData}),
            (Answers{{1001,
                      "sequence number out of order: expected above 10, got 2: two producers on "
                      "one queue look like this"}}));
}

TEST_F(StreamEndTest, AnOpenWriterThatFailsToOpenTriesAgainOnTheSameStream) {
  ShmWriter writer("stream", served.queue(), 5, 5, false);
  served.ask(bytesOf("rubbish"));
  served.send(bytesOf("rubbish"));
  served.worker().runOnce();  // an error from before the stream waits in the response queue
  EXPECT_ANY_THROW(writer.open());
  served.worker().runOnce();
  writer.open();
  writer.close();
  served.serve();
  EXPECT_EQ(served.stored(), Names{"QUEUE-RUN_0"});
  EXPECT_EQ(served.endOf(0), "end=closed\nreason=\n");
}

TEST_F(StreamEndTest, ARepeatedCloseIsAnsweredWithTheReceipt) {
  served.ask({kOpen});
  EXPECT_EQ(served.ask({kClose}), (Answers{{0, kEmptyReceipt}}));
  EXPECT_EQ(served.ask({kClose}), (Answers{{0, kEmptyReceipt}}));
  EXPECT_EQ(served.stored(), Names{"QUEUE-RUN_0"});
}

TEST_F(StreamEndTest, ACloseAfterAStopIsValid) {
  served.ask({kOpen});
  const Answers stopped = {{0, "receipt stream=RUN_0 records=0 bytes=0 segments=0 end=stopped"}};
  EXPECT_EQ(served.ask({kStop}), stopped);
  EXPECT_EQ(served.ask({kClose}), stopped);
  EXPECT_EQ(served.endOf(0), "end=stopped\nreason=\n");
}

TEST_F(StreamEndTest, AStopWithoutAnOpenIsValid) {
  ShmWriter writer("stream", served.queue(), 5, 5, false);
  writer.stop(false);
  EXPECT_EQ(served.serve(), (Answers{{0, ""}}));
  EXPECT_EQ(served.stored(), Names{});
}

TEST_F(StreamEndTest, RecordsAfterAStopAreOutside) {
  ShmWriter writer("stream", served.queue(), 5, 5, false);
  writer.open();
  writer.stop(false);
  writer.writeSegment(reinterpret_cast<const unsigned char*>("late"), 4);
  writer.close();
  const Answers answers = served.serve();
  EXPECT_EQ(answers.back(),
            (Answer{0, "receipt stream=RUN_0 records=0 bytes=0 segments=0 end=stopped"}));
  EXPECT_EQ(served.stored(), (Names{"QUEUE-RUN_0", "QUEUE-outside-records"}));
}

TEST_F(StreamEndTest, RecordsOutsideAStreamAreKeptInWireForm) {
  Record own{.type = 9, .seqNo = 1, .segParam3 = 0xF0, .data = bytesOf("own")};
  EXPECT_EQ(served.ask({kData, own}), (Answers{{0, ""}}));
  EXPECT_EQ(served.ask({kEnd}), (Answers{{0, ""}}));
  EXPECT_EQ(served.stored(), Names{"QUEUE-outside-records"});
  EXPECT_EQ(
      bytesOf(orvane::test::readFile(served.store() + "/" + served.queue() + "-outside-records")),
      hex("00000001 00000004 0000000000000002 0000000000000000 00000000 00000000"
          "00000000 00000000 00000000 aabbccdd 64617461"
          "00000009 00000003 0000000000000001 0000000000000000 00000001 00000000"
          "00000000 00000000 000000f0 aabbccdd 6f776e"
          "00000002 00000000 0000000000000004 0000000000000000 00000000 00000000"
          "00000000 00000000 00000000 aabbccdd"));
}

TEST_F(StreamEndTest, TheFirstRecordOutsideAStreamIsLogged) {
  const std::vector<Line> expected = {
      {ox::Kind::warning, 0,
       "worker::storeOutside: queue QUEUE: a record came while no stream was open; it is stored "
       "with the records outside a stream"}};
  served.ask({kData, kMoreData});
  EXPECT_EQ(served.log(), expected);
  served.ask({kMoreData});
  EXPECT_EQ(served.log(), std::vector<Line>{});
  served.ask({kOpen, kClose});
  served.log();
  served.ask({kMoreData});
  EXPECT_EQ(served.log(), expected) << "another producer";
}

TEST_F(StreamEndTest, TheReceiptIsRepeatedUntilTheNextOpen) {
  const std::string receipt = "receipt stream=RUN_0 records=1 bytes=4 segments=1 end=closed";
  EXPECT_EQ(served.ask({kOpen, kData, kEnd, kClose}), (Answers{{0, receipt}}));
  EXPECT_EQ(served.ask({}), (Answers{{0, receipt}}));
  EXPECT_EQ(served.ask({kData}), (Answers{{0, receipt}}));
  EXPECT_EQ(served.ask({kOpen}), (Answers{{0, ""}}));
  EXPECT_EQ(served.ask({}), (Answers{{0, ""}}));
}

TEST_F(StreamEndTest, AnOpenEmptiesTheResponseQueue) {
  served.send(bytesOf("rubbish"));
  served.worker().runOnce();
  served.send({kClose});
  served.worker().runOnce();
  EXPECT_EQ(served.waitingAnswers(), 2U);
  EXPECT_EQ(served.ask({kOpen}), (Answers{{0, ""}}));
}

TEST_F(StreamEndTest, FinishingTakesWhatIsQueuedAndCutsTheStreamOff) {
  served.send({kOpen});
  served.send({kData});
  served.send({kMoreData});
  served.worker().finish(kStopped);
  EXPECT_EQ(served.answers(), (Answers{{1004, kStoppedNotice}, {0, ""}, {0, ""}, {0, ""}}));
  EXPECT_EQ(served.file(0, "segment-000000.part"), "datamore");
  EXPECT_EQ(served.endOf(0), "end=cut-off\nreason=the server was stopped\n");
}

TEST_F(StreamEndTest, FinishingWithoutAStreamSendsTheNoticeToo) {
  served.worker().finish(kStopped);
  EXPECT_EQ(served.answers(), (Answers{{1004, kStoppedNotice}}));
}

}  // namespace
}  // namespace orvane::test::stream_end
