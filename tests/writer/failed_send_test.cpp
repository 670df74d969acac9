#include <gtest/gtest.h>

#include <boost/interprocess/exceptions.hpp>
#include <cerrno>
#include <limits>
#include <memory>
#include <stdexcept>
#include <utility>

#include "replaced_clock.hpp"
#include "replaced_waits.hpp"
#include "support/stream.hpp"
#include "support/throws.hpp"
#include "support/writer_members.hpp"

// Every operation that sends, under everything that a send can throw: this library's exceptions,
// Boost's and the clock's. The state that is left is the same for all; only the batch differs,
// which is kept when the failure came before the message was sent.
namespace orvane::test {
namespace {

namespace ipc = boost::interprocess;
using Records = std::vector<Record>;

enum class Cause { fullQueue, answer, clock, brokenQueue, wideAnswers };

constexpr const char* kWriteToClosed = "Could not write segment data because ShmWriter is not open";
constexpr const char* kEndOfClosed = "Could not end segment data because ShmWriter is not open";

class FailedSend : public testing::TestWithParam<Cause> {
 protected:
  ~FailedSend() override { setClock(std::nullopt); }

  static bool batchIsKept() {
    return GetParam() != Cause::answer && GetParam() != Cause::wideAnswers;
  }

  // `call` throws what the cause makes a send throw; afterwards sends succeed again and nothing
  // waits in the queue.
  testing::AssertionResult fails(const std::function<void()>& call) {
    const testing::AssertionResult result = failsAsItShould(call);
    setClock(std::nullopt);
    waits.endWith(ETIMEDOUT);
    if (narrow != nullptr) {
      responseQueueOf(stream.writer) = std::move(narrow);
    }
    stream.pair.discardAll();
    return result;
  }

  void fillBatch() {
    const pvk_shm_message_t header = recordHeader(9, 968);
    stream.writer.write_data(&header, Bytes(968, 'x').data(), 0, false);
  }

  // What the batch holds after the failure of a call that had stored or found these records there.
  static Records pending(Records records) { return batchIsKept() ? std::move(records) : Records(); }

  testing::AssertionResult writerIsClosed() {
    const auto write = throwsErrno(44, kWriteToClosed, [&] { stream.write("a"); });
    return write ? throwsErrno(44, kEndOfClosed, [&] { stream.writer.endSegment(); }) : write;
  }

  ReplacedWaits waits;
  Stream stream;

 private:
  testing::AssertionResult failsAsItShould(const std::function<void()>& call) {
    switch (GetParam()) {
      case Cause::fullQueue:
        stream.pair.fill();
        return throwsErrno(
            15, "Timed out after waiting 7s to send data to orvaned on stream stream", call);
      case Cause::answer:
        stream.pair.post(1001, "disk full");
        return throwsErrno(1001, "disk full", call);
      case Cause::clock:
        setClock(std::numeric_limits<std::time_t>::max());
        return throws<std::runtime_error>("could not convert calendar time to UTC time", call);
      case Cause::brokenQueue:
        stream.pair.fill();
        waits.endWith(EINVAL);
        return throws<ipc::lock_exception>("boost::interprocess::lock_exception", call);
      case Cause::wideAnswers:
        narrow = std::exchange(
            responseQueueOf(stream.writer),
            std::make_unique<ipc::message_queue>(ipc::open_only, wide.responseName().c_str()));
        return throws<ipc::interprocess_exception>("boost::interprocess_exception::library_error",
                                                   call);
    }
    return testing::AssertionFailure() << "an unknown cause";
  }

  template <class Exception>
  static testing::AssertionResult throws(const std::string& text,
                                         const std::function<void()>& call) {
    try {
      call();
    } catch (const Exception& e) {
      return text == e.what() ? testing::AssertionSuccess()
                              : testing::AssertionFailure() << e.what();
    }
    return testing::AssertionFailure() << "nothing was thrown";
  }

  QueuePair wide{{.responseSize = 133}};
  std::unique_ptr<ipc::message_queue> narrow;
};

std::string nameOf(const testing::TestParamInfo<Cause>& info) {
  constexpr const char* kNames[] = {"FullQueue", "Answer", "Clock", "BrokenQueue", "WideAnswers"};
  return kNames[static_cast<int>(info.param)];
}
INSTANTIATE_TEST_SUITE_P(Of, FailedSend,
                         testing::Values(Cause::fullQueue, Cause::answer, Cause::clock,
                                         Cause::brokenQueue, Cause::wideAnswers),
                         nameOf);

const Record kOpen = {.type = 0};
const Record kFirstData = {.type = 1, .seqNo = 2, .segmentDone = 0, .data = {'a'}};

Records joined(Records records, const Record& last) {
  records.push_back(last);
  return records;
}

TEST_P(FailedSend, LeavesAWriterThatWasNotOpenedClosedAtNumberZero) {
  EXPECT_TRUE(fails([&] { stream.writer.open(); }));
  EXPECT_TRUE(writerIsClosed());
  stream.writer.close();
  EXPECT_EQ(stream.pair.waiting(), 0U);
  stream.writer.stop(false);
  EXPECT_EQ(stream.sent(), joined(pending({kOpen}), {.type = 4, .seqNo = 1}));
}

TEST_P(FailedSend, LeavesAnOpenThatMayBeRepeated) {
  EXPECT_TRUE(fails([&] { stream.writer.open(); }));
  stream.writer.open();
  EXPECT_EQ(stream.sent(), joined(pending({kOpen}), kOpen));
  stream.write("a");
  EXPECT_EQ(stream.flushed(), Records{kFirstData});
}

TEST_P(FailedSend, OfASecondOpenLeavesTheCountersOfANewStream) {
  stream.open();
  stream.write("a");
  stream.writer.endSegment();
  stream.write("b");
  stream.writer.close();
  stream.pair.discardAll();
  EXPECT_TRUE(fails([&] { stream.writer.open(); }));
  EXPECT_TRUE(writerIsClosed());
  stream.writer.stop(false);
  EXPECT_EQ(stream.sent(),
            joined(pending({kOpen}), {.type = 4, .seqNo = 1, .segmentNo = 0, .segmentDone = 1}));
}

TEST_P(FailedSend, OfACloseLeavesTheWriterAndItsSegmentOpenWithTheNumberUsedUp) {
  stream.open();
  stream.write("a");
  EXPECT_TRUE(fails([&] { stream.writer.close(); }));
  stream.write("b");
  stream.writer.close();
  const Record close = {.type = 3, .seqNo = 3, .segmentDone = 0};
  EXPECT_EQ(stream.sent(), joined(joined(pending({kFirstData, close}),
                                         {.type = 1, .seqNo = 4, .segmentDone = 0, .data = {'b'}}),
                                  {.type = 3, .seqNo = 5, .segmentDone = 0}));
  EXPECT_TRUE(writerIsClosed());
}

TEST_P(FailedSend, OfAStopLeavesTheWriterAndItsSegmentOpenWithTheNumberUsedUp) {
  stream.open();
  stream.write("a");
  EXPECT_TRUE(fails([&] { stream.writer.stop(false); }));
  stream.writer.endSegment();
  stream.write("b");
  const Record stop = {.type = 4, .seqNo = 3, .segmentDone = 0};
  EXPECT_EQ(stream.flushed(),
            joined(joined(pending({kFirstData, stop}), {.type = 2, .seqNo = 4, .segmentDone = 0}),
                   {.type = 1, .seqNo = 5, .segmentNo = 1, .segmentDone = 0, .data = {'b'}}));
}

TEST_P(FailedSend, OfAStopLeavesAClosedWriterClosed) {
  EXPECT_TRUE(fails([&] { stream.writer.stop(false); }));
  EXPECT_TRUE(writerIsClosed());
  stream.writer.stop(false);
  EXPECT_EQ(stream.sent(), joined(pending({{.type = 4, .seqNo = 1}}), {.type = 4, .seqNo = 2}));
}

TEST_P(FailedSend, OfAFlushKeepsOrEmptiesTheBatchAndChangesNothingElse) {
  stream.open();
  stream.write("a");
  EXPECT_TRUE(fails([&] { stream.writer.flush_shm_buffer(7); }));
  stream.write("b");
  EXPECT_EQ(stream.flushed(), joined(pending({kFirstData}),
                                     {.type = 1, .seqNo = 3, .segmentDone = 0, .data = {'b'}}));
}

// The batch is full, so that the operation's own record needs a flush for its room.
class FailedSendForRoom : public FailedSend {
 protected:
  const Records theFullBatch = {{.type = 9, .data = Bytes(968, 'x')}};
};
INSTANTIATE_TEST_SUITE_P(Of, FailedSendForRoom,
                         testing::Values(Cause::fullQueue, Cause::answer, Cause::clock,
                                         Cause::brokenQueue, Cause::wideAnswers),
                         nameOf);

TEST_P(FailedSendForRoom, OfAnOpenRecordLeavesTheWriterClosedAndTheRecordOut) {
  fillBatch();
  EXPECT_TRUE(fails([&] { stream.writer.open(); }));
  EXPECT_TRUE(writerIsClosed());
  EXPECT_EQ(stream.flushed(), pending(theFullBatch));
  stream.writer.stop(false);
  EXPECT_EQ(stream.sent(), (Records{{.type = 4, .seqNo = 1}}));
}

TEST_P(FailedSendForRoom, OfACloseRecordLeavesTheWriterOpenAndTheRecordOut) {
  stream.open();
  stream.write("");
  stream.write("a");
  stream.pair.discardAll();
  stream.writer.flush_shm_buffer(0);
  fillBatch();
  EXPECT_TRUE(fails([&] { stream.writer.close(); }));
  EXPECT_EQ(stream.flushed(), pending(theFullBatch));
  stream.writer.close();
  EXPECT_EQ(stream.sent(), (Records{{.type = 3, .seqNo = 5, .segmentDone = 0}}));
  EXPECT_TRUE(writerIsClosed());
}

TEST_P(FailedSendForRoom, OfAStopRecordLeavesItOutWithItsNumberUsedUp) {
  fillBatch();
  EXPECT_TRUE(fails([&] { stream.writer.stop(false); }));
  EXPECT_EQ(stream.flushed(), pending(theFullBatch));
  stream.writer.stop(false);
  EXPECT_EQ(stream.sent(), (Records{{.type = 4, .seqNo = 2}}));
}

TEST_P(FailedSendForRoom, OfASegmentLeavesItOutWithItsNumberUsedUpAndTheSegmentBegun) {
  stream.open();
  fillBatch();
  EXPECT_TRUE(fails([&] { stream.write("a"); }));
  EXPECT_EQ(stream.flushed(), pending(theFullBatch));
  stream.writer.endSegment();
  EXPECT_EQ(stream.flushed(), (Records{{.type = 2, .seqNo = 3, .segmentDone = 0}}));
}

TEST_P(FailedSendForRoom, OfAnEndLeavesTheSegmentUnended) {
  stream.open();
  stream.write("a");
  stream.flushed();
  fillBatch();
  EXPECT_TRUE(fails([&] { stream.writer.endSegment(); }));
  EXPECT_EQ(stream.flushed(), pending(theFullBatch));
  stream.writer.endSegment();
  EXPECT_EQ(stream.flushed(), (Records{{.type = 2, .seqNo = 4, .segmentDone = 0}}));
}

}  // namespace
}  // namespace orvane::test
