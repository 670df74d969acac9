#include <gtest/gtest.h>

#include <memory>

#include "support/recording_sink.hpp"
#include "support/stream.hpp"

namespace orvane::test {
namespace {

class Destruction : public testing::Test {
 protected:
  std::unique_ptr<ShmWriter> writerWithTimeout(unsigned int timeout) const {
    return std::make_unique<ShmWriter>("stream", pair.name(), timeout, 0, false);
  }

  QueuePair pair;
};

TEST_F(Destruction, OfAFreshWriterSendsNothing) {
  writerWithTimeout(7).reset();
  EXPECT_EQ(pair.waiting(), 0U);
}

TEST_F(Destruction, OfAClosedWriterSendsNothing) {
  auto writer = writerWithTimeout(7);
  writer->open();
  writer->close();
  pair.discardAll();
  writer.reset();
  EXPECT_EQ(pair.waiting(), 0U);
}

TEST_F(Destruction, OfAWriterThatIsNotOpenDropsWhatItsBatchHolds) {
  auto writer = writerWithTimeout(7);
  const pvk_shm_message_t header = recordHeader(9, 0);
  writer->write_data(&header, nullptr, 0, false);
  writer.reset();
  EXPECT_EQ(pair.waiting(), 0U);
}

TEST_F(Destruction, OfAnOpenWriterSendsPendingDataAndAClose) {
  auto writer = writerWithTimeout(7);
  writer->open();
  pair.discardAll();
  writer->writeSegment(reinterpret_cast<const unsigned char*>("abc"), 3);
  writer.reset();
  EXPECT_EQ(pair.receiveRecords(),
            (std::vector<Record>{{.type = 1, .seqNo = 2, .segmentDone = 0, .data = bytesOf("abc")},
                                 {.type = 3, .seqNo = 3, .segmentDone = 0}}));
  EXPECT_EQ(pair.waiting(), 0U);
}

TEST_F(Destruction, ThroughTheBaseClassClosesToo) {
  std::unique_ptr<Channel> channel;
  {
    auto writer = writerWithTimeout(7);
    writer->open();
    pair.discardAll();
    channel = std::move(writer);
  }
  channel.reset();
  EXPECT_EQ(pair.receiveRecords(), (std::vector<Record>{{.type = 3, .seqNo = 2}}));
  EXPECT_EQ(mappingsOf(pair.name()), 1U);
  EXPECT_EQ(mappingsOf(pair.responseName()), 1U);
}

TEST_F(Destruction, OnAQueueThatStaysFullCompletes) {
  auto writer = writerWithTimeout(1);
  writer->open();
  pair.fill();
  const std::size_t waiting = pair.waiting();
  EXPECT_NO_THROW(writer.reset());
  EXPECT_EQ(pair.waiting(), waiting);
  EXPECT_EQ(mappingsOf(pair.name()), 1U);
}

TEST_F(Destruction, DropsTheServersError) {
  auto writer = writerWithTimeout(7);
  writer->open();
  pair.discardAll();
  pair.post(1004, "too late");
  EXPECT_NO_THROW(writer.reset());
  EXPECT_EQ(pair.receiveRecords(), (std::vector<Record>{{.type = 3, .seqNo = 2}}));
  EXPECT_EQ(pair.waitingAnswers(), 0U);
}

TEST_F(Destruction, TriesAgainAfterAFailedClose) {
  auto writer = writerWithTimeout(7);
  writer->open();
  pair.discardAll();
  pair.post(1005, "first");
  EXPECT_ANY_THROW(writer->close());
  pair.discardAll();
  writer.reset();
  EXPECT_EQ(pair.receiveRecords(), (std::vector<Record>{{.type = 3, .seqNo = 3}}));
}

TEST_F(Destruction, TracesItsCloseInsideItsScope) {
  auto writer = writerWithTimeout(7);
  writer->open();
  pair.post(1006, "dropped without a trace");
  RecordingSink sink(RecordingSink::Tracing::on);
  writer.reset();
  EXPECT_EQ(sink.take(),
            (std::vector{entered("~ShmWriter"), entered("close"), entered("write_data"),
                         traced("write_data: write header.type =3, len=0, timeout=7s"),
                         traced("flush_shm_buffer: Sending shm batch of 1"), left("write_data"),
                         left("close"), left("~ShmWriter")}));
}

TEST_F(Destruction, OfAFreshWriterOnlyTracesItsScope) {
  auto writer = writerWithTimeout(7);
  RecordingSink sink(RecordingSink::Tracing::on);
  writer.reset();
  EXPECT_EQ(sink.take(), (std::vector{entered("~ShmWriter"), left("~ShmWriter")}));
}

}  // namespace
}  // namespace orvane::test
