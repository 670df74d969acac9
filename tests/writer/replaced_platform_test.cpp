#include "replaced_platform.hpp"

#include <gtest/gtest.h>

#include "support/recording_sink.hpp"
#include "support/stream.hpp"

namespace orvane::test {
namespace {

using replaced::Call;
using replaced::takeCalls;
using replaced::traceOnCalls;

Call traceCall(std::string format, std::vector<std::string> arguments) {
  return {"__Trace", 0, std::move(format), std::move(arguments)};
}

const char* const kWriteFormat = "%s: write header.type =%d, len=%d, timeout=%us";
const char* const kFlushFormat = "%s: Sending shm batch of %u";

class ReplacedPlatform : public testing::Test {
 protected:
  ReplacedPlatform() {
    stream.open();
    replaced::reset(true);
  }
  ~ReplacedPlatform() override { replaced::reset(false); }

  void write(std::uint32_t len, bool flush) {
    const pvk_shm_message_t header = recordHeader(9, len);
    stream.writer.write_data(&header, Bytes(len, 'x').data(), 7, flush);
  }

  Stream stream;
};

TEST_F(ReplacedPlatform, IsAskedOnceByEachRecordThatIsNotFlushed) {
  write(0, false);
  EXPECT_EQ(traceOnCalls(), 1);
  write(5, false);
  EXPECT_EQ(traceOnCalls(), 2);
}

TEST_F(ReplacedPlatform, IsAskedOnceMoreByEachFlush) {
  write(0, true);
  EXPECT_EQ(traceOnCalls(), 2);
  stream.writer.flush_shm_buffer(0);
  EXPECT_EQ(traceOnCalls(), 3);
  write(968, false);
  EXPECT_EQ(traceOnCalls(), 4);
  write(0, true);  // one flush for room, one because it was asked for
  EXPECT_EQ(traceOnCalls(), 7);
}

// The flush asks the program whether it traces: there the program may do anything, as another
// thread of it may while the flush waits.
TEST_F(ReplacedPlatform, MayChangeTheCallersHeaderDuringTheFlushThatMakesRoom) {
  write(900, false);
  pvk_shm_message_t header = recordHeader(kRecordEndOfSegment, 200);
  header.seqNo = 5;
  replaced::duringTraceOn(2, [&] {  // 1: write_data's own line
    header = recordHeader(9, 100);
    header.seqNo = 6;
  });
  stream.writer.write_data(&header, Bytes(200, 'y').data(), 7, false);
  ASSERT_EQ(header.seqNo, 6u);
  stream.pair.discardAll();
  const std::vector<Record> records = stream.flushed();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0], (Record{.type = 2, .seqNo = 5, .data = Bytes(200, 'y')}));
  stream.writer.endSegment();  // redundant: the record that was stored was an end of segment
  EXPECT_EQ(stream.flushed(), std::vector<Record>());
}

TEST_F(ReplacedPlatform, IsAskedOnceForEachOptionalLineOfAnOperation) {
  stream.write("a");
  EXPECT_EQ(traceOnCalls(), 1);
  stream.writer.endSegment();
  EXPECT_EQ(traceOnCalls(), 2);
  stream.writer.endSegment();  // redundant
  EXPECT_EQ(traceOnCalls(), 3);
  stream.writer.setSegmentAlg(kOrvaneSegUnbounded, 1, 2, 3);
  EXPECT_EQ(traceOnCalls(), 3);
  stream.writer.close();  // the record and the flush
  EXPECT_EQ(traceOnCalls(), 5);
  stream.writer.open();  // its own line too
  EXPECT_EQ(traceOnCalls(), 8);
  stream.writer.open();
  EXPECT_EQ(traceOnCalls(), 8);
  const ShmWriter other("other", stream.pair.name(), 7, 0, false);  // three, and the batch's
  EXPECT_EQ(traceOnCalls(), 12);
}

TEST_F(ReplacedPlatform, GetsNoTraceLineWhenItAnswersThatTracingIsOff) {
  replaced::reset(false);
  ox::setTracing(true);  // the platform's own switch, which a replaced TraceOn overrules
  RecordingSink sink(RecordingSink::Tracing::off);
  write(5, true);
  stream.writer.endSegment();
  stream.writer.endSegment();
  stream.writer.close();
  stream.writer.open();
  const ShmWriter other("other", stream.pair.name(), 7, 0, false);
  EXPECT_EQ(takeCalls(), std::vector<Call>());
  EXPECT_EQ(traceOnCalls(), 13);
}

TEST_F(ReplacedPlatform, GetsTheFormatsAndArgumentsOfTheDataPath) {
  write(5, true);
  EXPECT_EQ(takeCalls(), (std::vector{traceCall(kWriteFormat, {"write_data", "9", "5", "7"}),
                                      traceCall(kFlushFormat, {"flush_shm_buffer", "1"})}));
}

TEST_F(ReplacedPlatform, GetsTheFormatsAndArgumentsOfConstruction) {
  const ShmWriter other("other", stream.pair.name(), 7, 0, false);
  EXPECT_EQ(takeCalls(),
            (std::vector{traceCall("%s: opening send message queue", {"ShmWriter"}),
                         traceCall("%s: opening message response queue", {"ShmWriter"}),
                         traceCall("%s: creating shm batch buffer", {"ShmWriter"}),
                         traceCall("%s: bufferSize=%u", {"ShmBatch", "1024"})}));
}

TEST_F(ReplacedPlatform, GetsTheFormatsAndArgumentsOfOpenAndOfARedundantEnd) {
  stream.writer.close();
  takeCalls();
  stream.writer.open();
  EXPECT_EQ(
      takeCalls(),
      (std::vector{traceCall("ShmWriter:open: orvane msgQueueName is %s", {stream.pair.name()}),
                   traceCall(kWriteFormat, {"write_data", "0", "0", "7"}),
                   traceCall(kFlushFormat, {"flush_shm_buffer", "1"})}));
  stream.writer.endSegment();
  takeCalls();
  stream.writer.endSegment();
  EXPECT_EQ(takeCalls(),
            std::vector{traceCall("%s: ignoring redundant %u header", {"endSegment", "2"})});
}

TEST_F(ReplacedPlatform, GetsTheWarningOfBenchmarkMode) {
  Stream benchmark({.benchmark = true});
  replaced::reset(false);
  const pvk_shm_message_t header = recordHeader(9, 0);
  benchmark.writer.write_data(&header, nullptr, 0, true);
  EXPECT_EQ(takeCalls(), (std::vector{Call{"WarningA",
                                           -1,
                                           "%s: ORVANE_PERF_BENCHMARK_ENABLED is set to 1. This "
                                           "backup will fail. Dumping data..",
                                           {"write_data"}}}));
}

// The line comes before the capacity is checked or allocated; the exception keeps it from that.
TEST_F(ReplacedPlatform, GetsTheLow32BitsOfABatchsCapacityBeforeAnythingElse) {
  replaced::throwFromTrace(true);
  EXPECT_THROW(ShmBatch(0x8000000000000005), int);
  EXPECT_THROW(ShmBatch(7), int);
  EXPECT_EQ(takeCalls(), (std::vector{traceCall("%s: bufferSize=%u", {"ShmBatch", "5"}),
                                      traceCall("%s: bufferSize=%u", {"ShmBatch", "7"})}));
}

TEST_F(ReplacedPlatform, DoesNotSteerTheScopes) {
  RecordingSink sink(RecordingSink::Tracing::on);
  write(0, false);
  EXPECT_EQ(sink.take(), (std::vector{entered("write_data"), left("write_data")}));
}

}  // namespace
}  // namespace orvane::test
