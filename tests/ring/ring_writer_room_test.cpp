#include <gtest/gtest.h>

#include <stdexcept>

#include "ring_stream.hpp"
#include "support/child.hpp"
#include "support/throws.hpp"
#include "support/waiting_thread.hpp"

namespace orvane::test {
namespace {

using Records = std::vector<Record>;

constexpr char kForked[] = "A forked child cannot use the lease of its parent: take another one";

std::string notReserved(const std::string& length, const std::string& reserved) {
  return "Cannot commit " + length + " bytes: " + reserved + " are reserved";
}

void fillRing(RingStream& stream) {
  stream.writer->setSegmentAlg(kOrvaneSegUnbounded, 0, 0, 0);
  for (int i = 0; i < 4; ++i) {
    stream.write(std::string(kLargestRecord, 'x'));
  }
}

void put(RingStream& stream, unsigned long length, const std::string& text) {
  unsigned char* const place = stream.writer->reserve(length);
  text.copy(reinterpret_cast<char*>(place), text.size());
  stream.writer->commit(text.size());
}

TEST(RingWriterReserve, BuildsTheRecordsOfWriteSegment) {
  RingStream stream;
  stream.open();
  stream.writer->setSegmentAlg(kOrvaneSegUnbounded, 1, 2, 3);
  put(stream, 2, "hi");
  put(stream, 100, "less");
  put(stream, 100, "");
  stream.write("a");
  stream.writer->endSegment();
  put(stream, 3, "end");
  const auto record = [](std::uint64_t seqNo, const std::string& text) {
    return Record{.type = 1,
                  .seqNo = seqNo,
                  .segmentDone = 0,
                  .segAlg = 1,
                  .segParam1 = 1,
                  .segParam2 = 2,
                  .segParam3 = 3,
                  .data = bytesOf(text)};
  };
  Records expected = {record(2, "hi"), record(3, "less"), record(4, ""),
                      record(5, "a"),  record(6, ""),     record(7, "end")};
  expected[4].type = 2;
  expected[5].segmentNo = 1;
  EXPECT_EQ(stream.flushed(), expected);
}

TEST(RingWriterReserve, ChangesNothingUntilTheCommit) {
  RingStream stream;
  stream.open();
  std::memset(stream.writer->reserve(100), 'x', 100);
  stream.writer->reserve(50);
  stream.write("a");
  EXPECT_EQ(stream.flushed(),
            (Records{{.type = 1, .seqNo = 2, .segmentDone = 0, .data = bytesOf("a")}}));
}

TEST(RingWriterReserve, GivesAPlaceInTheRingItself) {
  RingStream stream;
  stream.open();
  const MappedFile file(stream.reader.producersFile());
  std::memcpy(stream.writer->reserve(3), "abc", 3);
  EXPECT_EQ(file.bytes(kData + 128 + 16 + 8 + 48, 3), bytesOf("abc"));
}

TEST(RingWriterReserve, MayTakeTheLargestRecordAndNoMore) {
  RingStream stream;
  stream.open();
  stream.writer->setSegmentAlg(kOrvaneSegUnbounded, 0, 0, 0);
  std::memset(stream.writer->reserve(kLargestRecord), 'x', kLargestRecord);
  stream.writer->commit(kLargestRecord);
  EXPECT_EQ(stream.flushed().at(0).data, Bytes(kLargestRecord, 'x'));
  EXPECT_TRUE(throwsErrno(89,
                          "Could not fit header (type=1) with data length 262073 into the batch, "
                          "even after batch has been flushed",
                          [&] { stream.writer->reserve(262073); }));
  stream.writer->setSegmentAlg(kOrvaneSegBounded, 0, 0, 0);
  EXPECT_NE(stream.writer->reserve(131072), nullptr);
  EXPECT_TRUE(throwsErrno(85,
                          "Segment too large error.  Received segment of size 131073 bytes, but "
                          "the maximum allowed segment size is 131072 bytes",
                          [&] { stream.writer->reserve(131073); }));
}

TEST(RingWriterReserve, ThatIsTooLargeLeavesAnEarlierPlaceAsItWas) {
  RingStream stream;
  stream.open();
  stream.writer->reserve(5);
  EXPECT_ANY_THROW(stream.writer->reserve(131073));
  EXPECT_TRUE(throwsErrno(9, notReserved("6", "5"), [&] { stream.writer->commit(6); }));
}

TEST(RingWriterReserve, NeedsAnOpenWriterAndAnAlgorithm) {
  RingStream stream;
  EXPECT_TRUE(throwsErrno(44, kRingNotOpen, [&] { stream.writer->reserve(1); }));
  stream.open();
  stream.writer->setSegmentAlg(static_cast<orvane_seg_state_t>(2), 0, 0, 0);
  EXPECT_TRUE(throwsErrno(44, "Could not write segment data because wrong algorithm has been set",
                          [&] { stream.writer->reserve(1); }));
}

TEST(RingWriterReserve, ThrowsTheServersError) {
  RingStream stream;
  stream.writer->open();
  stream.writer->setSegmentAlg(kOrvaneSegUnbounded, 0, 0, 0);
  stream.write(std::string(kLargestRecord, 'x'));
  stream.sent(1003, "disk full");
  EXPECT_TRUE(throwsErrno(1003, "disk full", [&] { stream.writer->reserve(1); }));
  EXPECT_TRUE(throwsErrno(9, notReserved("1", "0"), [&] { stream.writer->commit(1); }));
}

TEST(RingWriterCommit, NeedsAPlaceOfItsSize) {
  RingStream stream;
  stream.open();
  EXPECT_TRUE(throwsErrno(9, notReserved("0", "0"), [&] { stream.writer->commit(0); }));
  stream.writer->reserve(5);
  EXPECT_TRUE(throwsErrno(9, notReserved("6", "5"), [&] { stream.writer->commit(6); }));
  EXPECT_TRUE(
      throwsErrno(9, notReserved("4294967296", "5"), [&] { stream.writer->commit(4294967296); }));
  stream.writer->commit(0);
  EXPECT_TRUE(throwsErrno(9, notReserved("0", "0"), [&] { stream.writer->commit(0); }));
  EXPECT_EQ(stream.flushed(), (Records{{.type = 1, .seqNo = 2}}));
}

TEST(RingWriterCommit, IsTooLateAfterAnotherCall) {
  RingStream stream;
  stream.open();
  const std::pair<const char*, std::function<void()>> calls[] = {
      {"writeSegment", [&] { stream.write("a"); }},
      {"endSegment", [&] { stream.writer->endSegment(); }},
      {"stop", [&] { stream.writer->stop(false); }},
      {"setSegmentAlg", [&] { stream.writer->setSegmentAlg(kOrvaneSegUnbounded, 0, 0, 0); }}};
  for (const auto& [name, call] : calls) {
    stream.writer->reserve(5);
    call();
    EXPECT_TRUE(throwsErrno(9, notReserved("5", "0"), [&] { stream.writer->commit(5); })) << name;
  }
}

TEST(RingWriterRoom, IsWaitedForForTheTimeout) {
  RingStream stream({.timeout = 1});
  stream.open();
  fillRing(stream);
  for (const auto& call : {std::function<void()>([&] { stream.write("a"); }),
                           std::function<void()>([&] { stream.writer->reserve(1); }),
                           std::function<void()>([&] { stream.writer->endSegment(); })}) {
    const Stopwatch watch;
    EXPECT_TRUE(throwsErrno(15, kNoRoom, call));
    EXPECT_GE(watch.seconds(), 0.99);
  }
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(stream.sent().size(), 1U) << "nothing is lost";
  }
  EXPECT_EQ(stream.flushed(), Records()) << "what found no room is left out";
}

TEST(RingWriterRoom, IsWaitedForNoLongerThanTheTimeout) {
  RingStream stream({.timeout = 4});
  stream.open();
  fillRing(stream);
  const Stopwatch watch;
  EXPECT_ANY_THROW(stream.write("a"));
  EXPECT_LT(watch.seconds(), 7.5);
}

// Fills the ring but for 160 KiB, and begins a frame of 50 KiB there.
void fillRingAndBeginAFrame(RingStream& stream) {
  stream.open();
  stream.writer->setSegmentAlg(kOrvaneSegUnbounded, 0, 0, 0);
  for (int i = 0; i < 3; ++i) {
    stream.write(std::string(kLargestRecord, 'x'));
  }
  stream.write(std::string(100 << 10, 'x'));
  stream.writer->stop(false);
  stream.write(std::string(50 << 10, 'a'));
}

TEST(RingWriterRoom, ThatIsThereWhenItIsLookedForKeepsTheFrameTogether) {
  RingStream stream;
  fillRingAndBeginAFrame(stream);
  while (!stream.sent().empty()) {
  }
  stream.write(std::string(120 << 10, 'b'));
  EXPECT_TRUE(stream.sent().empty()) << "the frame is not full";
  EXPECT_EQ(stream.flushed().size(), 2U);
}

TEST(RingWriterRoom, IsWaitedForWhenTheFrameHasBeenHandedOver) {
  RingStream stream({.timeout = 1});
  fillRingAndBeginAFrame(stream);
  EXPECT_TRUE(throwsErrno(15, kNoRoom, [&] { stream.write(std::string(120 << 10, 'b')); }));
  Records last;
  for (Records more = stream.sent(); !more.empty(); more = stream.sent()) {
    last = more;
  }
  ASSERT_EQ(last.size(), 1U);
  EXPECT_EQ(last.front().data, Bytes(50 << 10, 'a'));
}

TEST(RingWriterRoom, IsWaitedForByAStopForItsOwnTimeout) {
  RingStream stream({.timeout = 60, .stopTimeout = 0});
  stream.open();
  fillRing(stream);
  EXPECT_TRUE(throwsErrno(15, "Timed out after waiting 0s to send data to orvaned on stream stream",
                          [&] { stream.writer->stop(true); }));
  AnsweringThread server(stream.reader);
  stream.writer->stop(false);
  EXPECT_EQ(server.records().back().type, 4U);
}

TEST(RingWriterRoom, IsThereAgainWhenTheServerHasReleasedAQuarter) {
  RingStream stream({.timeout = 60});
  stream.open();
  fillRing(stream);
  std::atomic<bool> returned = false;
  WaitingThread thread([&] {
    stream.write("a");
    returned = true;
  });
  thread.awaitSleep();
  EXPECT_FALSE(returned);
  EXPECT_EQ(stream.sent().size(), 1U);
  thread.returns();
  EXPECT_TRUE(returned);
}

TEST(RingWriterRoom, ThatComesWithAnErrorThrowsIt) {
  RingStream stream({.timeout = 60});
  stream.open();
  fillRing(stream);
  WaitingThread thread(
      [&] { EXPECT_TRUE(throwsErrno(1003, "disk full", [&] { stream.write("a"); })); });
  thread.awaitSleep();
  stream.sent(1003, "disk full");
  thread.returns();
}

TEST(RingWriterRoom, EndsWithTheLease) {
  RingStream stream({.timeout = 60});
  stream.open();
  fillRing(stream);
  WaitingThread thread(
      [&] { EXPECT_TRUE(throwsErrno(901, kServerEnded, [&] { stream.write("a"); })); });
  thread.awaitSleep();
  const Stopwatch watch;
  stream.server.end();
  thread.returns();
  EXPECT_LT(watch.seconds(), 10) << "long before the timeout";
}

TEST(RingWriterRoom, IsNotAskedForByARecordThatIsTooLarge) {
  RingStream stream({.timeout = 60});
  stream.open();
  fillRing(stream);
  stream.server.end();  // so that a wait would end
  EXPECT_TRUE(throwsErrno(89,
                          "Could not fit header (type=1) with data length 262073 into the batch, "
                          "even after batch has been flushed",
                          [&] { stream.write(std::string(kLargestRecord + 1, 'x')); }));
  stream.writer->setSegmentAlg(kOrvaneSegBounded, 0, 0, 0);
  EXPECT_TRUE(throwsErrno(85,
                          "Segment too large error.  Received segment of size 131073 bytes, but "
                          "the maximum allowed segment size is 131072 bytes",
                          [&] { stream.writer->reserve(131073); }));
}

TEST(RingWriterRoom, IsUsedAgainAndAgainWithRecordsOfOddSizes) {
  RingStream stream({.timeout = 60});
  AnsweringThread server(stream.reader);
  stream.writer->open();
  stream.writer->setSegmentAlg(kOrvaneSegUnbounded, 0, 0, 0);
  Bytes written;
  std::uint32_t state = 1;
  for (int i = 0; i < 900; ++i) {
    state = state * 1103515245 + 12345;
    const std::uint32_t size = (state >> 8) % (i % 10 == 0 ? 262073 : 20000);
    Bytes data(size);
    for (std::size_t k = 0; k < size; ++k) {
      data[k] = static_cast<unsigned char>(k * 31 + static_cast<std::size_t>(i));
    }
    if (i % 2 == 0) {
      stream.writer->writeSegment(data.data(), size);
    } else {
      std::copy(data.begin(), data.end(), stream.writer->reserve(size));
      stream.writer->commit(size);
    }
    written.insert(written.end(), data.begin(), data.end());
  }
  stream.writer->close();
  Bytes arrived;
  std::uint64_t seqNo = 0;
  for (const Record& record : server.records()) {
    EXPECT_EQ(record.seqNo, seqNo);
    seqNo += seqNo == 0 ? 2 : 1;
    arrived.insert(arrived.end(), record.data.begin(), record.data.end());
  }
  EXPECT_GT(written.size(), 15 * kRing);
  EXPECT_EQ(seqNo, 903U);
  EXPECT_TRUE(arrived == written);
}

TEST(RingWriterTurns, EndWithEachStreamAndWakeTheOtherSide) {
  RingStream stream({.timeout = 60});
  AnsweringThread server(stream.reader);
  const Stopwatch watch;
  for (int i = 0; i < 1000; ++i) {
    stream.writer->open();
    stream.writer->close();
  }
  EXPECT_LT(watch.seconds(), 50) << "two wake-ups that are lost take 0.1 s each";
  EXPECT_EQ(server.end().size(), 2000U);
}

TEST(RingWriterSuccessor, ContinuesOnTheSameLease) {
  RingStream stream;
  AnsweringThread server(stream.reader);
  stream.writer->open();
  stream.write("a");
  stream.writer.reset();
  RingWriter second("second", stream.lease->ring(), 7, 0, false);
  second.open();
  second.writeSegment(bytesOf("b").data(), 1);
  second.close();
  EXPECT_EQ(server.records(),
            (Records{{.type = 0},
                     {.type = 1, .seqNo = 2, .segmentDone = 0, .data = bytesOf("a")},
                     {.type = 3, .seqNo = 3, .segmentDone = 0},
                     {.type = 0},
                     {.type = 1, .seqNo = 2, .segmentDone = 0, .data = bytesOf("b")},
                     {.type = 3, .seqNo = 3, .segmentDone = 0}}));
}

TEST(RingWriterInAForkedChild, ThrowsAndSendsNothing) {
  RingStream stream;
  stream.open();
  stream.write("a");
  std::memcpy(stream.writer->reserve(1), "b", 1);
  Child child([&] {
    RingWriter& writer = *stream.writer;
    const std::pair<const char*, std::function<void()>> calls[] = {
        {"commit", [&] { writer.commit(1); }},
        {"reserve", [&] { writer.reserve(1); }},
        {"commit without a place", [&] { writer.commit(1); }},
        {"writeSegment", [&] { stream.write("c"); }},
        {"endSegment", [&] { writer.endSegment(); }},
        {"stop", [&] { writer.stop(true); }},
        {"close", [&] { writer.close(); }},
        {"too large a record", [&] {
           writer.setSegmentAlg(kOrvaneSegUnbounded, 0, 0, 0);
           stream.write(std::string(kLargestRecord + 1, 'x'));
         }}};
    for (const auto& [name, call] : calls) {
      if (!throwsErrno(901, kForked, call)) {
        throw std::runtime_error(name);
      }
    }
    stream.writer.reset();
    if (!throwsErrno(901, kForked,
                     [&] { RingWriter("new", stream.lease->ring(), 1, 0, false).open(); })) {
      throw std::runtime_error("a writer of its own");
    }
    stream.lease.reset();
  });
  EXPECT_EQ(child.nextChange(), "exit 0");
  stream.writer->commit(1);
  EXPECT_EQ(stream.flushed(),
            (Records{{.type = 1, .seqNo = 2, .segmentDone = 0, .data = bytesOf("a")},
                     {.type = 1, .seqNo = 3, .segmentDone = 0, .data = bytesOf("b")}}));
}

}  // namespace
}  // namespace orvane::test
