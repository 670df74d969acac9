#include <gtest/gtest.h>

#include "ring_stream.hpp"
#include "support/throws.hpp"
#include "support/waiting_thread.hpp"

namespace orvane::test {
namespace {

using Records = std::vector<Record>;

TEST(RingWriterClose, ReturnsAfterTheServerHasAnswered) {
  RingStream stream;
  stream.open();
  stream.write("a");
  std::atomic<bool> returned = false;
  WaitingThread thread([&] {
    stream.writer->close();
    returned = true;
  });
  thread.awaitSleep();
  EXPECT_FALSE(returned);
  const Bytes batch = received(stream.reader);
  EXPECT_EQ(recordsOf(batch),
            (Records{{.type = 1, .seqNo = 2, .segmentDone = 0, .data = bytesOf("a")},
                     {.type = 3, .seqNo = 3, .segmentDone = 0}}));
  thread.awaitSleep();
  EXPECT_FALSE(returned) << "the batch is received, and not answered";
  stream.reader.answer(responseOf(0));
  thread.returns();
  EXPECT_TRUE(returned);
  EXPECT_TRUE(throwsErrno(44, kRingNotOpen, [&] { stream.write("b"); }));
  stream.writer->close();
  EXPECT_EQ(stream.sent(), Records()) << "a closed writer is not closed again";
}

TEST(RingWriterClose, ThrowsTheServersErrorAndIsClosedThen) {
  RingStream stream;
  stream.open();
  {
    const AnsweringThread server(stream.reader, {responseOf(1003, "disk full")});
    EXPECT_TRUE(throwsErrno(1003, "disk full", [&] { stream.writer->close(); }));
    EXPECT_NO_THROW(stream.writer->close());
  }
  EXPECT_EQ(stream.sent(), Records());
  EXPECT_TRUE(throwsErrno(44, kRingNotOpen, [&] { stream.write("b"); }));
  stream.writer->open();
  EXPECT_EQ(stream.sent(), Records{{.type = 0}});
}

TEST(RingWriterClose, OfAWriterThatWasNeverOpenWaitsForNoAnswer) {
  RingStream stream({.timeout = 1});
  stream.writer->stop(false);
  EXPECT_NO_THROW(stream.writer->close());
}

TEST(RingWriterClose, OfAStreamThatHasItsAnswerWaitsForNoOther) {
  for (const std::int32_t status : {0, 1003}) {
    RingStream stream({.timeout = 1});
    stream.open();
    EXPECT_TRUE(throwsErrno(15, kNoAnswer, [&] { stream.writer->close(); }));
    stream.sent(status, "disk full");
    if (status == 0) {
      EXPECT_NO_THROW(stream.writer->close());
    } else {
      EXPECT_TRUE(throwsErrno(1003, "disk full", [&] { stream.writer->close(); }));
    }
    stream.writer->stop(false);
    EXPECT_NO_THROW(stream.writer->close()) << status;
  }
}

TEST(RingWriterClose, ThatTimesOutWaitsAgainWithoutASecondRecord) {
  RingStream stream({.timeout = 1});
  stream.open();
  for (int i = 0; i < 2; ++i) {
    const Stopwatch watch;
    EXPECT_TRUE(throwsErrno(15, kNoAnswer, [&] { stream.writer->close(); }));
    EXPECT_GE(watch.seconds(), 0.99);
  }
  EXPECT_EQ(stream.sent(), (Records{{.type = 3, .seqNo = 2}}));
  EXPECT_NO_THROW(stream.writer->close());
  EXPECT_EQ(stream.sent(), Records());
}

TEST(RingWriterClose, ThrowsAnErrorThatCameAfterItsTimeout) {
  RingStream stream({.timeout = 1});
  stream.open();
  EXPECT_TRUE(throwsErrno(15, kNoAnswer, [&] { stream.writer->close(); }));
  stream.sent(1003, "disk full");
  EXPECT_TRUE(throwsErrno(1003, "disk full", [&] { stream.writer->close(); }));
  EXPECT_NO_THROW(stream.writer->close());
}

TEST(RingWriterClose, ThatTimesOutLetsTheStreamTakeNoMore) {
  RingStream stream({.timeout = 1});
  stream.open();
  EXPECT_TRUE(throwsErrno(15, kNoAnswer, [&] { stream.writer->close(); }));
  EXPECT_TRUE(throwsErrno(44, kRingNotOpen, [&] { stream.write("b"); }));
  EXPECT_TRUE(throwsErrno(44, kRingNotOpen, [&] { stream.writer->reserve(1); }));
  EXPECT_TRUE(throwsErrno(44, "Could not end segment data because ShmWriter is not open",
                          [&] { stream.writer->endSegment(); }));
  EXPECT_TRUE(throwsErrno(15, kNoAnswer, [&] { stream.writer->open(); }));
  EXPECT_EQ(stream.sent(), (Records{{.type = 3, .seqNo = 2}}));
  stream.writer->open();
  EXPECT_EQ(stream.sent(), Records{{.type = 0}});
  stream.write("c");
  EXPECT_EQ(stream.flushed().size(), 1U);
}

TEST(RingWriterClose, ThatTimesOutForRoomSendsItsRecordTheNextTime) {
  RingStream stream({.timeout = 1});
  stream.open();
  stream.writer->setSegmentAlg(kOrvaneSegUnbounded, 0, 0, 0);
  for (int i = 0; i < 4; ++i) {
    stream.write(std::string(kLargestRecord, 'x'));  // the ring is full
  }
  EXPECT_TRUE(throwsErrno(15, kNoRoom, [&] { stream.writer->close(); }));
  AnsweringThread server(stream.reader);
  stream.writer->close();
  const Records records = server.records();
  ASSERT_EQ(records.size(), 5U);
  EXPECT_EQ(records[4], (Record{.type = 3, .seqNo = 7, .segmentDone = 0, .segAlg = 1}));
}

TEST(RingWriterClose, EndsTheStreamInSpiteOfAnEarlierError) {
  RingStream stream;
  stream.writer->open();
  stream.sent(1003, "disk full");
  stream.writer->setSegmentAlg(kOrvaneSegUnbounded, 0, 0, 0);
  stream.write(std::string(kLargestRecord, 'x'));  // the close has to flush it first
  AnsweringThread server(stream.reader);
  EXPECT_TRUE(throwsErrno(1003, "disk full", [&] { stream.writer->close(); }));
  EXPECT_TRUE(throwsErrno(44, kRingNotOpen, [&] { stream.write("b"); }));
  EXPECT_EQ(server.end().size(), 2U);
  EXPECT_EQ(server.records().back().type, 3U);
}

TEST(RingWriterOpen, ThrowsNoErrorOfAnEarlierStream) {
  RingStream stream;
  stream.open();
  stream.writer->stop(false);
  stream.sent(1003, "disk full");
  RingWriter second("second", stream.lease->ring(), 7, 0, false);
  EXPECT_NO_THROW(second.open());
  EXPECT_EQ(stream.sent(), Records{{.type = 0}});
  stream.server.end();  // so that nobody waits for the end of this stream
}

TEST(RingWriterOpen, WaitsUntilEverythingEarlierIsAnswered) {
  RingStream stream({.timeout = 1});
  stream.writer->stop(false);
  EXPECT_TRUE(throwsErrno(15, kNoAnswer, [&] { stream.writer->open(); }));
  EXPECT_TRUE(throwsErrno(44, kRingNotOpen, [&] { stream.write("a"); }));
  EXPECT_EQ(stream.sent(), (Records{{.type = 4, .seqNo = 1}}));
  EXPECT_EQ(stream.sent(), Records());
  EXPECT_NO_THROW(stream.writer->open());
  EXPECT_EQ(stream.sent(), Records{{.type = 0}});
}

TEST(RingWriterMessages, LeaveAnEmptyNameOut) {
  RingStream stream({.name = "", .timeout = 1});
  stream.writer->stop(false);
  EXPECT_TRUE(throwsErrno(15, "Timed out after waiting 1s for an answer of orvaned",
                          [&] { stream.writer->open(); }));
}

TEST(RingWriterDestruction, ClosesTheStream) {
  RingStream stream;
  stream.open();
  AnsweringThread server(stream.reader, {responseOf(1003, "ignored")});
  stream.writer.reset();
  EXPECT_EQ(server.records(), (Records{{.type = 3, .seqNo = 2}}));
}

TEST(RingWriterDestruction, WaitsForTheAnswerForItsTimeoutAtMost) {
  RingStream stream({.timeout = 1});
  stream.open();
  const Stopwatch watch;
  stream.writer.reset();
  EXPECT_GE(watch.seconds(), 0.99);
  EXPECT_EQ(stream.sent(), (Records{{.type = 3, .seqNo = 2}}));
}

TEST(RingWriterDestruction, WaitsAgainForACloseThatTimedOut) {
  RingStream stream({.timeout = 1});
  stream.open();
  EXPECT_ANY_THROW(stream.writer->close());
  const Stopwatch watch;
  stream.writer.reset();
  EXPECT_GE(watch.seconds(), 0.99);
  EXPECT_EQ(stream.sent(), (Records{{.type = 3, .seqNo = 2}}));
  EXPECT_EQ(stream.sent(), Records());
}

TEST(RingWriterDestruction, OfACancelledThreadDoesNotEndTheProcess) {
  RingStream stream({.timeout = 1});
  stream.open();
  WaitingThread thread([&] {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    pthread_cancel(pthread_self());
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    stream.writer.reset();
  });
  EXPECT_FALSE(thread.returns()) << "it was not cancelled";
  EXPECT_EQ(stream.sent(), (Records{{.type = 3, .seqNo = 2}}));
}

TEST(RingWriterLoss, EndsABlockedCallSoon) {
  RingStream stream({.timeout = 60});
  stream.open();
  WaitingThread thread(
      [&] { EXPECT_TRUE(throwsErrno(901, kServerEnded, [&] { stream.writer->close(); })); });
  thread.awaitSleep();
  const Stopwatch watch;
  stream.server.end();
  thread.returns();
  EXPECT_LT(watch.seconds(), 10) << "long before the timeout";
  EXPECT_FALSE(stream.lease->alive());
  EXPECT_TRUE(throwsErrno(901, kServerEnded, [&] { stream.writer->close(); }));
  stream.writer.reset();
  EXPECT_LT(watch.seconds(), 20);
}

}  // namespace
}  // namespace orvane::test
