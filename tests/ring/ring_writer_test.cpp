#include "orvane/ring_writer.hpp"

#include <gtest/gtest.h>

#include <memory>

#include "ring_stream.hpp"
#include "support/recording_sink.hpp"
#include "support/throws.hpp"

namespace orvane::test {
namespace {

using Records = std::vector<Record>;

TEST(RingWriterConstruction, RejectsATimeoutOutsideOfADay) {
  const RingStream stream;
  EXPECT_TRUE(
      throwsErrno(9, "Invalid timeout, specified value 0 was less than minimum allowed value of 1",
                  [&] { RingWriter("x", stream.lease->ring(), 0, 0, false); }));
  EXPECT_TRUE(throwsErrno(
      9, "Invalid timeout, specified value 86401 was more than maximum allowed value of 86400",
      [&] { RingWriter("x", stream.lease->ring(), 86401, 0, false); }));
}

TEST(RingWriterConstruction, RejectsALeaseWithoutARing) {
  EXPECT_TRUE(throwsErrno(9,
                          "This lease has a queue and no ring: give its queueName() to a ShmWriter",
                          [] { RingWriter("x", nullptr, 5, 0, false); }));
}

TEST(RingWriterConstruction, ChecksTheTimeoutFirst) {
  EXPECT_TRUE(
      throwsErrno(9, "Invalid timeout, specified value 0 was less than minimum allowed value of 1",
                  [] { RingWriter("x", nullptr, 0, 0, false); }));
}

TEST(RingWriterOpen, OfAnOpenWriterWaitsForNoAnswer) {
  RingStream stream({.timeout = 1});
  stream.writer->open();
  EXPECT_NO_THROW(stream.writer->open());
}

TEST(RingWriterOpen, SendsTheOpenRecordAtOnce) {
  RingStream stream;
  stream.writer->open();
  EXPECT_EQ(received(stream.reader),
            hex("ff00ee11 00000001"
                "00000000 00000000 0000000000000000 0000000000000000 00000001 00000000"
                "00000000 00000000 00000000 aabbccdd"));
  stream.reader.answer(responseOf(0));
  EXPECT_EQ(received(stream.reader), Bytes());
}

TEST(RingWriterOpen, OfAnOpenWriterHasNoEffect) {
  RingStream stream;
  stream.open();
  stream.write("a");
  stream.writer->open();
  EXPECT_EQ(stream.sent(), Records());
  stream.write("b");
  EXPECT_EQ(stream.flushed(),
            (Records{{.type = 1, .seqNo = 2, .segmentDone = 0, .data = bytesOf("a")},
                     {.type = 1, .seqNo = 3, .segmentDone = 0, .data = bytesOf("b")}}));
}

TEST(RingWriterOpen, KeepsTheFirstAndThirdParameterOfTheStreamBefore) {
  RingStream stream;
  AnsweringThread server(stream.reader);
  stream.writer->open();
  stream.writer->setSegmentAlg(kOrvaneSegUnbounded, 11, 22, 33);
  stream.writer->close();
  stream.writer->open();
  EXPECT_EQ(
      server.records(),
      (Records{
          {.type = 0},
          {.type = 3, .seqNo = 2, .segAlg = 1, .segParam1 = 11, .segParam2 = 22, .segParam3 = 33},
          {.type = 0, .segAlg = 0, .segParam1 = 11, .segParam2 = 0, .segParam3 = 33}}));
}

TEST(RingWriterRecords, AreThoseOfAQueuesWriterInOneBatch) {
  RingStream stream;
  stream.open();
  AnsweringThread server(stream.reader);
  stream.writer->setSegmentAlg(kOrvaneSegUnbounded, 0x11, 0x22, 0x33);
  stream.write("hi");
  stream.writer->endSegment();
  stream.writer->close();
  EXPECT_EQ(
      server.end(),
      std::vector<Bytes>{hex("ff00ee11 00000003"
                             "00000001 00000002 0000000000000002 0000000000000000 00000000 00000001"
                             "00000011 00000022 00000033 aabbccdd 6869"
                             "00000002 00000000 0000000000000003 0000000000000000 00000000 00000001"
                             "00000011 00000022 00000033 aabbccdd"
                             "00000003 00000000 0000000000000004 0000000000000001 00000001 00000001"
                             "00000011 00000022 00000033 aabbccdd")});
}

TEST(RingWriterRecords, NumberTheSegments) {
  RingStream stream;
  stream.open();
  stream.write("a");
  stream.write("b");
  stream.writer->endSegment();
  stream.writer->endSegment();  // redundant
  stream.write("c");
  stream.writer->endSegment();
  stream.write("");
  EXPECT_EQ(
      stream.flushed(),
      (Records{{.type = 1, .seqNo = 2, .segmentDone = 0, .data = bytesOf("a")},
               {.type = 1, .seqNo = 3, .segmentDone = 0, .data = bytesOf("b")},
               {.type = 2, .seqNo = 4, .segmentDone = 0},
               {.type = 1, .seqNo = 5, .segmentNo = 1, .segmentDone = 0, .data = bytesOf("c")},
               {.type = 2, .seqNo = 6, .segmentNo = 1, .segmentDone = 0},
               {.type = 1, .seqNo = 7, .segmentNo = 2, .segmentDone = 1}}));
}

TEST(RingWriterRecords, WaitUntilTheyAreAFrame) {
  RingStream stream;
  stream.open();
  stream.write("a");
  stream.writer->endSegment();
  EXPECT_EQ(stream.sent(), Records());
  EXPECT_EQ(stream.reader.waiting(), 0U);
}

TEST(RingWriterRecords, FillAFrameOf256KiBToTheByte) {
  RingStream stream({.bytes = 2 * kRing});
  stream.open();
  stream.writer->setSegmentAlg(kOrvaneSegUnbounded, 0, 0, 0);
  stream.write(std::string(100000, 'a'));
  stream.write(std::string(262144 - 24 - 48 - 100000 - 48, 'b'));
  EXPECT_EQ(stream.sent(), Records());
  stream.write("");
  EXPECT_EQ(stream.sent().size(), 2U);
  stream.write(std::string(262144 - 24 - 48 - 48 + 1, 'c'));  // a byte too long after that one
  EXPECT_EQ(stream.sent().size(), 1U);
  EXPECT_EQ(stream.flushed().size(), 1U);
}

TEST(RingWriterRecords, MayTakeAQuarterOfALargeRingAlone) {
  RingStream stream({.bytes = 2 * kRing});
  stream.open();
  stream.writer->setSegmentAlg(kOrvaneSegUnbounded, 0, 0, 0);
  const std::string large(524216, 'x');
  stream.write(large);
  EXPECT_EQ(stream.flushed().at(0).data, bytesOf(large));
  EXPECT_TRUE(throwsErrno(89,
                          "Could not fit header (type=1) with data length 524217 into the batch, "
                          "even after batch has been flushed",
                          [&] { stream.write(large + "x"); }));
}

TEST(RingWriterRecords, ThatNoFrameHoldsAreRejectedAfterAFlush) {
  RingStream stream;
  stream.open();
  stream.writer->setSegmentAlg(kOrvaneSegUnbounded, 0, 0, 0);
  stream.write("a");
  EXPECT_TRUE(throwsErrno(89,
                          "Could not fit header (type=1) with data length 262073 into the batch, "
                          "even after batch has been flushed",
                          [&] { stream.write(std::string(262073, 'x')); }));
  EXPECT_EQ(stream.sent().at(0).data, bytesOf("a"));
  const std::string largest(kLargestRecord, 'y');
  stream.write(largest);
  EXPECT_EQ(
      stream.flushed(),
      (Records{{.type = 1, .seqNo = 4, .segmentDone = 0, .segAlg = 1, .data = bytesOf(largest)}}));
}

TEST(RingWriterRecords, OfABoundedSegmentHave128KiB) {
  RingStream stream;
  stream.open();
  EXPECT_TRUE(throwsErrno(85,
                          "Segment too large error.  Received segment of size 131073 bytes, but "
                          "the maximum allowed segment size is 131072 bytes",
                          [&] { stream.write(std::string(131073, 'x')); }));
  stream.write(std::string(131072, 'x'));
  EXPECT_EQ(stream.flushed().at(0).data, Bytes(131072, 'x'));
}

TEST(RingWriterRecords, NeedData) {
  RingStream stream;
  stream.open();
  EXPECT_TRUE(throwsErrno(
      9, "Invalid header; the specified length of data is 5 but the data pointer is NULL",
      [&] { stream.writer->writeSegment(nullptr, 5); }));
  stream.writer->writeSegment(nullptr, 0x100000000);  // its low 32 bits are zero
  stream.writer->endSegment();
  EXPECT_EQ(stream.flushed(), (Records{{.type = 1, .seqNo = 3, .segmentDone = 0},
                                       {.type = 2, .seqNo = 4, .segmentDone = 0}}));
}

TEST(RingWriterRecords, NeedAnOpenWriterAndAnAlgorithm) {
  RingStream stream;
  EXPECT_TRUE(throwsErrno(44, kRingNotOpen, [&] { stream.write("a"); }));
  EXPECT_TRUE(throwsErrno(44, "Could not end segment data because ShmWriter is not open",
                          [&] { stream.writer->endSegment(); }));
  stream.writer->close();
  EXPECT_EQ(stream.sent(), Records());
  stream.open();
  stream.writer->setSegmentAlg(static_cast<orvane_seg_state_t>(2), 0, 0, 0);
  EXPECT_TRUE(throwsErrno(44, "Could not write segment data because wrong algorithm has been set",
                          [&] { stream.write("a"); }));
  stream.writer->setSegmentAlg(kOrvaneSegBounded, 0, 0, 0);
  stream.write("a");
  EXPECT_EQ(stream.flushed().at(0).seqNo, 2U) << "no number was used up";
}

TEST(RingWriterStop, SendsAtOnceAndClosesNothing) {
  RingStream stream;
  stream.writer->stop(false);
  EXPECT_EQ(stream.sent(), (Records{{.type = 4, .seqNo = 1}}));
  stream.open();
  stream.write("a");
  stream.writer->stop(true);
  EXPECT_EQ(stream.sent(), (Records{{.type = 1, .seqNo = 2, .segmentDone = 0, .data = bytesOf("a")},
                                    {.type = 4, .seqNo = 3, .segmentDone = 0}}));
  EXPECT_NO_THROW(stream.write("b"));
}

TEST(RingWriterErrors, AreThrownByTheNextFlush) {
  RingStream stream;
  stream.writer->open();
  stream.sent(1003, "disk full");
  stream.write("a");
  EXPECT_TRUE(throwsErrno(1003, "disk full", [&] { stream.writer->stop(false); }));
  EXPECT_EQ(stream.sent().size(), 2U) << "it was sent";
  EXPECT_NO_THROW(stream.writer->stop(false)) << "an error is thrown once";
}

TEST(RingWriterErrors, KeepTheFirstWhenSeveralBatchesAreAnswered) {
  RingStream stream;
  stream.writer->stop(false);
  stream.writer->stop(false);
  stream.writer->stop(false);
  stream.sent(0, "fine");
  stream.sent(1000, "first");
  stream.sent(1003, "second");
  EXPECT_TRUE(throwsErrno(1000, "first", [&] { stream.writer->stop(false); }));
  stream.sent();
  EXPECT_NO_THROW(stream.writer->stop(false));
}

TEST(RingWriterErrors, MayFillTheirText) {
  RingStream stream;
  stream.writer->stop(false);
  received(stream.reader);
  pvk_shm_response_t full;
  full.status = 1003;
  std::memset(full.text, 'x', sizeof full.text);  // without a zero at its end
  stream.reader.answer(full);
  EXPECT_TRUE(throwsErrno(1003, std::string(128, 'x'), [&] { stream.writer->stop(false); }));
}

TEST(RingWriterErrors, ComeFromTheFlushThatARecordNeedsAndKeepItOut) {
  RingStream stream;
  stream.open();
  stream.writer->setSegmentAlg(kOrvaneSegUnbounded, 0, 0, 0);
  stream.writer->stop(false);
  stream.write(std::string(kLargestRecord, 'x'));
  stream.sent(1003, "disk full");
  EXPECT_TRUE(throwsErrno(1003, "disk full", [&] { stream.write("a"); }));
  EXPECT_EQ(stream.sent().at(0).data.size(), kLargestRecord);
  EXPECT_EQ(stream.flushed(), Records());
}

TEST(RingWriterBenchmark, DropsEveryRecordWithAWarning) {
  RecordingSink sink;
  RingStream stream({.benchmark = true});
  const Line warning = {ox::Kind::warning, -1,
                        "write_data: ORVANE_PERF_BENCHMARK_ENABLED is set to 1. This backup will "
                        "fail. Dumping data.."};
  stream.writer->open();
  stream.write("a");
  std::memset(stream.writer->reserve(5), 'x', 5);
  stream.writer->commit(5);
  stream.writer->close();
  EXPECT_EQ(sink.take(), std::vector(4, warning));
  EXPECT_EQ(stream.sent(), Records());
}

TEST(RingWriterTrace, NamesItsCalls) {
  RingStream stream;
  RecordingSink sink(RecordingSink::Tracing::on);
  stream.writer->stop(false);
  EXPECT_EQ(sink.take(), (std::vector{entered("stop"), entered("write_data"),
                                      traced("write_data: write header.type =4, len=0, timeout=7s"),
                                      left("write_data"), left("stop")}));
  stream.sent();
  stream.writer->open();
  EXPECT_EQ(sink.take(), (std::vector{entered("open"), entered("write_data"),
                                      traced("write_data: write header.type =0, len=0, timeout=7s"),
                                      left("write_data"), left("open")}));
  stream.writer->open();
  EXPECT_EQ(sink.take(), (std::vector{entered("open"), left("open")}));
}

TEST(RingWriterTrace, NamesItsConstructionAndItsEnd) {
  const RingStream stream;
  RecordingSink sink(RecordingSink::Tracing::on);
  RingWriter("x", stream.lease->ring(), 7, 0, false);
  EXPECT_EQ(sink.take(), (std::vector{entered("RingWriter"), left("RingWriter"),
                                      entered("~RingWriter"), left("~RingWriter")}));
  EXPECT_ANY_THROW(RingWriter("x", stream.lease->ring(), 0, 0, false));
  EXPECT_EQ(sink.take(), (std::vector{entered("RingWriter"), left("RingWriter")}));
}

}  // namespace
}  // namespace orvane::test
