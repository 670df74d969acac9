#include <gtest/gtest.h>

#include <memory>

#include "support/recording_sink.hpp"
#include "support/stream.hpp"
#include "transports.hpp"

namespace orvane::test {
namespace {

template <typename Transport>
class Destruction : public testing::Test {};
TYPED_TEST_SUITE(Destruction, Transports, TransportName);

class DestructionOnAQueue : public testing::Test {
 protected:
  std::unique_ptr<ShmWriter> writerWithTimeout(unsigned int timeout) const {
    return std::make_unique<ShmWriter>("stream", pair.name(), timeout, 0, false);
  }

  QueuePair pair;
};

TYPED_TEST(Destruction, OfAFreshWriterSendsNothing) {
  TypeParam stream;
  stream.destroy();
  EXPECT_EQ(stream.waiting(), 0U);
}

TYPED_TEST(Destruction, OfAClosedWriterSendsNothing) {
  TypeParam stream;
  stream.open();
  stream.close();
  stream.discardAll();
  stream.destroy();
  EXPECT_EQ(stream.waiting(), 0U);
}

TEST_F(DestructionOnAQueue, OfAWriterThatIsNotOpenDropsWhatItsBatchHolds) {
  auto writer = writerWithTimeout(7);
  const pvk_shm_message_t header = recordHeader(9, 0);
  writer->write_data(&header, nullptr, 0, false);
  writer.reset();
  EXPECT_EQ(pair.waiting(), 0U);
}

TYPED_TEST(Destruction, OfAnOpenWriterSendsPendingDataAndAClose) {
  TypeParam stream;
  stream.open();
  stream.write("abc");
  stream.destroy();
  EXPECT_EQ(stream.sent(),
            (std::vector<Record>{{.type = 1, .seqNo = 2, .segmentDone = 0, .data = bytesOf("abc")},
                                 {.type = 3, .seqNo = 3, .segmentDone = 0}}));
  EXPECT_EQ(stream.waiting(), 0U);
}

TEST_F(DestructionOnAQueue, ThroughTheBaseClassClosesToo) {
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

TEST_F(DestructionOnAQueue, OnAQueueThatStaysFullCompletes) {
  auto writer = writerWithTimeout(1);
  writer->open();
  pair.fill();
  const std::size_t waiting = pair.waiting();
  EXPECT_NO_THROW(writer.reset());
  EXPECT_EQ(pair.waiting(), waiting);
  EXPECT_EQ(mappingsOf(pair.name()), 1U);
}

TYPED_TEST(Destruction, DropsTheServersError) {
  TypeParam stream;
  stream.open();
  stream.post(1004, "too late");
  EXPECT_NO_THROW(stream.destroy());
  EXPECT_EQ(stream.sent(), (std::vector<Record>{{.type = 3, .seqNo = 2}}));
  EXPECT_EQ(stream.waitingAnswers(), 0U);
}

TEST_F(DestructionOnAQueue, TriesAgainAfterAFailedClose) {
  auto writer = writerWithTimeout(7);
  writer->open();
  pair.discardAll();
  pair.post(1005, "first");
  EXPECT_ANY_THROW(writer->close());
  pair.discardAll();
  writer.reset();
  EXPECT_EQ(pair.receiveRecords(), (std::vector<Record>{{.type = 3, .seqNo = 3}}));
}

TEST_F(DestructionOnAQueue, TracesItsCloseInsideItsScope) {
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

TEST_F(DestructionOnAQueue, OfAFreshWriterOnlyTracesItsScope) {
  auto writer = writerWithTimeout(7);
  RecordingSink sink(RecordingSink::Tracing::on);
  writer.reset();
  EXPECT_EQ(sink.take(), (std::vector{entered("~ShmWriter"), left("~ShmWriter")}));
}

}  // namespace
}  // namespace orvane::test
