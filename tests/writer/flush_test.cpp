#include <gtest/gtest.h>

#include <queue>

#include "support/stream.hpp"
#include "support/throws.hpp"
#include "transports.hpp"

namespace orvane::test {
namespace {

TEST(Flush, OfAnEmptyBatchSendsEightBytes) {
  Stream stream;
  stream.writer.flush_shm_buffer(0);
  EXPECT_EQ(stream.pair.receive().bytes, hex("ff00ee11 00000000"));
}

TEST(Flush, SendsTheBytesInUseAndNoMore) {
  Stream stream;
  stream.open();
  stream.write("hello");
  stream.writer.flush_shm_buffer(0);
  EXPECT_EQ(stream.pair.receive().bytes,
            hex("ff00ee11 00000001"
                "00000001 00000005 0000000000000002 0000000000000000 00000000 00000000"
                "00000000 00000000 00000000 aabbccdd 68656c6c6f"));
}

TEST(Flush, SendsAtPriorityOne) {
  Stream stream;
  stream.writer.flush_shm_buffer(0);
  EXPECT_EQ(stream.pair.receive().priority, 1U);
}

template <typename Transport>
class Flush : public testing::Test {};
TYPED_TEST_SUITE(Flush, Transports, TransportName);

TYPED_TEST(Flush, EmptiesTheBatch) {
  TypeParam stream;
  stream.open();
  stream.write("hello");
  EXPECT_EQ(stream.flushed().size(), 1U);
  EXPECT_EQ(stream.flushed().size(), 0U);
}

TEST(Flush, IsReadByTheServersReader) {
  Stream stream;
  stream.open();
  stream.write("hello");
  stream.writer.endSegment();
  stream.writer.flush_shm_buffer(0);
  const Bytes message = stream.pair.receive().bytes;
  std::queue<ShmBatch::Entry> entries;
  ShmBatch::getEntriesFromBuffer(entries, message.data(), message.size());
  ASSERT_EQ(entries.size(), 2U);
  EXPECT_EQ(entries.front().header.type, 1U);
  EXPECT_EQ(entries.front().data, message.data() + 56);
  EXPECT_EQ(entries.back().header.type, 2U);
  EXPECT_EQ(entries.back().data, nullptr);
}

TEST(Flush, WithoutPatienceSendsWhileThereIsRoom) {
  Stream stream;
  EXPECT_NO_THROW(stream.writer.flush_shm_buffer(0));
}

TEST(Flush, WithTheLongestPatienceSendsWhileThereIsRoom) {
  Stream stream;
  EXPECT_NO_THROW(stream.writer.flush_shm_buffer(4294967295U));
  EXPECT_EQ(stream.pair.waiting(), 1U);
}

TEST(Flush, WithoutPatienceFailsAtOnceOnAFullQueueAndKeepsTheBatch) {
  Stream stream;
  stream.open();
  stream.write("hello");
  stream.pair.fill();
  EXPECT_TRUE(throwsErrno(15, "Timed out after waiting 0s to send data to orvaned on stream stream",
                          [&] { stream.writer.flush_shm_buffer(0); }));
  stream.pair.discardAll();
  EXPECT_EQ(stream.flushed().at(0).data, bytesOf("hello"));
}

TEST(Flush, ThatTimesOutTakesNoAnswer) {
  Stream stream;
  stream.pair.fill();
  stream.pair.post(1001, "left for later");
  EXPECT_TRUE(throwsErrno(15, "Timed out after waiting 0s to send data to orvaned on stream stream",
                          [&] { stream.writer.flush_shm_buffer(0); }));
  EXPECT_EQ(stream.pair.waitingAnswers(), 1U);
}

TYPED_TEST(Flush, OfAStreamWithoutANameNamesOnlyTheServer) {
  TypeParam stream({.name = ""});
  stream.fill();
  EXPECT_TRUE(throwsErrno(15, "Timed out after waiting 0s to send data to orvaned",
                          [&] { stream.writer->stop(true); }));
}

TYPED_TEST(Flush, NamesTheWholeStream) {
  const std::string name("a\0b %s", 6);
  TypeParam stream({.name = name});
  stream.fill();
  EXPECT_TRUE(throwsErrno(15,
                          "Timed out after waiting 0s to send data to orvaned on stream " + name,
                          [&] { stream.writer->stop(true); }));
}

}  // namespace
}  // namespace orvane::test
