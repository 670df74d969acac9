#include "orvane/ring_writer.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>

#include "ring/producer.hpp"
#include "ring_stream.hpp"
#include "support/child.hpp"
#include "support/recording_sink.hpp"
#include "support/throws.hpp"

namespace orvane::test {
namespace {

using Records = std::vector<Record>;

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

TEST(RingWriterRecords, MayBeMoreThan65536InAFrame) {
  RingStream stream({.bytes = 16 * kRing});
  stream.lease->ring()->setUsualFrame(4 * kRing);
  stream.open();
  for (int i = 0; i < 65537; ++i) {
    stream.write("");
  }
  stream.writer->stop(false);
  EXPECT_EQ(stream.sent().size(), 65538U);
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

TEST(RingWriterTrace, NamesReserveAndCommit) {
  RingStream stream;
  RecordingSink sink(RecordingSink::Tracing::on);
  EXPECT_ANY_THROW(stream.writer->reserve(1));
  EXPECT_EQ(sink.take(), (std::vector{entered("reserve"), left("reserve")}));
  stream.open();
  sink.take();
  std::memset(stream.writer->reserve(2), 'x', 2);
  EXPECT_EQ(sink.take(), (std::vector{entered("reserve"), left("reserve")}));
  stream.writer->commit(1);
  EXPECT_EQ(sink.take(), (std::vector{entered("commit"),
                                      traced("write_data: write header.type =1, len=1, timeout=7s"),
                                      left("commit")}));
  Child child([&] {
    EXPECT_ANY_THROW(stream.writer->commit(1));
    if (sink.take() != std::vector{entered("commit"), left("commit")}) {
      throw std::runtime_error("a commit that throws is not traced");
    }
  });
  EXPECT_EQ(child.nextChange(), "exit 0");
}

TEST(RingWriterTrace, NamesClose) {
  RingStream stream;
  stream.open();
  const AnsweringThread server(stream.reader);
  RecordingSink sink(RecordingSink::Tracing::on);
  stream.writer->close();
  EXPECT_EQ(sink.take(), (std::vector{entered("close"), entered("write_data"),
                                      traced("write_data: write header.type =3, len=0, timeout=7s"),
                                      left("write_data"), left("close")}));
  stream.writer->close();
  EXPECT_EQ(sink.take(), (std::vector{entered("close"), left("close")}));
}

TEST(RingWriterTrace, NamesItsConstructionAndItsEnd) {
  const RingStream stream;
  RecordingSink sink(RecordingSink::Tracing::on);
  { const RingWriter writer("x", stream.lease->ring(), 7, 0, false); }
  EXPECT_EQ(sink.take(), (std::vector{entered("RingWriter"), left("RingWriter"),
                                      entered("~RingWriter"), left("~RingWriter")}));
  EXPECT_ANY_THROW(RingWriter("x", stream.lease->ring(), 0, 0, false));
  EXPECT_EQ(sink.take(), (std::vector{entered("RingWriter"), left("RingWriter")}));
}

TEST(RingWriterTrace, HasTheCloseOfADestructionInItsScope) {
  RingStream stream;
  stream.open();
  const AnsweringThread server(stream.reader);
  RecordingSink sink(RecordingSink::Tracing::on);
  stream.writer.reset();
  EXPECT_EQ(sink.take(),
            (std::vector{entered("~RingWriter"), entered("close"), entered("write_data"),
                         traced("write_data: write header.type =3, len=0, timeout=7s"),
                         left("write_data"), left("close"), left("~RingWriter")}));
}

}  // namespace
}  // namespace orvane::test
